#import "hostapi/NVServiceSettings.h"

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
