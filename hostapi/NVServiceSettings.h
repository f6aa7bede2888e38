// A service as a user has set it up.

#ifndef HOSTAPI_NVSERVICESETTINGS_H
#define HOSTAPI_NVSERVICESETTINGS_H

#import <Foundation/Foundation.h>

/// Settings and state of one service. Properties may be read and set from any thread.
@interface NVServiceSettings : NSObject {
@private
    NSString* m_pServiceID;
    NSString* m_pServiceName;
    NSString* m_pCEK;
    NSString* m_pLegend;
    BOOL m_bIsEnabled;
    BOOL m_bIsConfigured;
    NSArray* m_pDataTypes;
    NSString* m_pAuthMechanism;
    id m_pBackupFrom;
    int m_iBackupStatus;
    int m_iBackupError;
    id m_pPKEK;
    NSString* m_pServiceAppID;
    NSString* m_pServiceAPIKey;
    NSString* m_pServiceAPISecret;
    NSString* m_pServiceFrob;
    NSString* m_pServiceOAuthToken;
}

@property(copy) NSString* serviceID;
@property(copy) NSString* serviceName;
/// Content encryption key text; nil or empty for none.
@property(copy) NSString* cEK;
@property(copy) NSString* legend;
@property BOOL enabled;
/// Whether the user has signed in and chosen.
@property BOOL configured;
/// The data types to back up, as texts ("Images", "Videos"); nil for none.
@property(copy) NSArray* dataTypes;
/// "OAuth"
@property(copy) NSString* authMechanism;
/// Items updated after this moment are backed up: an NSDate, or its text, "yyyy-MM-dd hh:mm:ss Z".
@property(retain) id backupFrom;
/// How the last backup ended, as in BackupEventArgs.h.
@property int backupStatus;
/// The last backup's error; 0 for none.
@property int backupError;
/// The key that NVSecurity made for the plug-in.
@property(retain) id pKEK;
@property(copy) NSString* serviceAppID;
/// Key and secret of the service's interface, deciphered.
@property(copy) NSString* serviceAPIKey;
@property(copy) NSString* serviceAPISecret;
@property(copy) NSString* serviceFrob;
/// What the service gave the user at sign-in.
@property(copy) NSString* serviceOAuthToken;

@end

#endif
