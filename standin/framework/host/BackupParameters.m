#import "hostapi/BackupParameters.h"

#import "hostapi/NVDeviceSettings.h"
#import "hostapi/NVServiceSettings.h"

@implementation BackupParameters

- (id)initWithBackupParameters:(NSString*)connection
                    withAKEKey:(id)key
                       service:(NVServiceSettings*)serviceSettings
                        device:(NVDeviceSettings*)deviceSettings
                           app:(id)appSettings {
    self = [super init];
    if (self != nil) {
        m_pBackupMetaDataConnectionString = [connection copy];
        m_pAKEKey = [key retain];
        m_pServiceSettings = [serviceSettings retain];
        m_pDeviceSettings = [deviceSettings retain];
        m_pAppSettings = [appSettings retain];
    }
    return self;
}

- (void)dealloc {
    [m_pBackupMetaDataConnectionString release];
    [m_pAKEKey release];
    [m_pServiceSettings release];
    [m_pDeviceSettings release];
    [m_pAppSettings release];
    [super dealloc];
}

- (NSString*)backupMetaDataConnectionString {
    return m_pBackupMetaDataConnectionString;
}

- (id)aKEKey {
    return m_pAKEKey;
}

- (NVServiceSettings*)serviceSettings {
    return m_pServiceSettings;
}

- (NVDeviceSettings*)deviceSettings {
    return m_pDeviceSettings;
}

- (id)appSettings {
    return m_pAppSettings;
}

@end
