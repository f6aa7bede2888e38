#import "hostapi/BackupEventArgs.h"

#import "hostapi/NVDeviceSettings.h"
#import "hostapi/NVServiceSettings.h"

@implementation BackupEventArgs

@synthesize backupStatus = m_iBackupStatus;
@synthesize serviceName = m_pServiceName;
@synthesize detail = m_pDetail;
@synthesize serviceSettings = m_pServiceSettings;
@synthesize deviceSettings = m_pDeviceSettings;

- (id)initWithBackupStatus:(int)status withServiceName:(NSString*)serviceName {
    self = [super init];
    if (self != nil) {
        m_iBackupStatus = status;
        m_pServiceName = [serviceName copy];
    }
    return self;
}

- (void)dealloc {
    [m_pServiceName release];
    [m_pDetail release];
    [m_pServiceSettings release];
    [m_pDeviceSettings release];
    [super dealloc];
}

@end
