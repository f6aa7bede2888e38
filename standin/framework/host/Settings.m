// The objects that carry settings and outcomes between the host and a plug-in.

#import "hostapi/BackupEventArgs.h"
#import "hostapi/BackupParameters.h"
#import "hostapi/NVDeviceSettings.h"
#import "hostapi/NVServiceSettings.h"
#import "hostapi/ServiceSettings.h"

@implementation NVServiceSettings

@synthesize serviceID = m_pServiceID;
@synthesize serviceName = m_pServiceName;
@synthesize cEK = m_pCEK;
@synthesize legend = m_pLegend;
@synthesize enabled = m_bIsEnabled;
@synthesize configured = m_bIsConfigured;
@synthesize dataTypes = m_pDataTypes;
@synthesize authMechanism = m_pAuthMechanism;
@synthesize backupFrom = m_pBackupFrom;
@synthesize backupStatus = m_iBackupStatus;
@synthesize backupError = m_iBackupError;
@synthesize pKEK = m_pPKEK;
@synthesize serviceAppID = m_pServiceAppID;
@synthesize serviceAPIKey = m_pServiceAPIKey;
@synthesize serviceAPISecret = m_pServiceAPISecret;
@synthesize serviceFrob = m_pServiceFrob;
@synthesize serviceOAuthToken = m_pServiceOAuthToken;

- (void)dealloc {
    [m_pServiceID release];
    [m_pServiceName release];
    [m_pCEK release];
    [m_pLegend release];
    [m_pDataTypes release];
    [m_pAuthMechanism release];
    [m_pBackupFrom release];
    [m_pPKEK release];
    [m_pServiceAppID release];
    [m_pServiceAPIKey release];
    [m_pServiceAPISecret release];
    [m_pServiceFrob release];
    [m_pServiceOAuthToken release];
    [super dealloc];
}

@end

@implementation NVDeviceSettings

@synthesize mountPoint = m_pMountPoint;
@synthesize deviceCulture = m_pDeviceCulture;
@synthesize mode = m_iMode;

- (void)dealloc {
    [m_pMountPoint release];
    [m_pDeviceCulture release];
    [super dealloc];
}

@end

@implementation ServiceSettings

@synthesize settings = m_pSettings;

- (id)init {
    self = [super init];
    if (self != nil) m_pSettings = [[NSMutableDictionary alloc] init];
    return self;
}

- (void)dealloc {
    [m_pSettings release];
    [super dealloc];
}

@end

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
