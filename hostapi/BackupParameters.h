// What one backup works with.

#ifndef HOSTAPI_BACKUPPARAMETERS_H
#define HOSTAPI_BACKUPPARAMETERS_H

#import <Foundation/Foundation.h>

@class NVDeviceSettings;
@class NVServiceSettings;

@interface BackupParameters : NSObject {
@private
    NSString* m_pBackupMetaDataConnectionString;
    id m_pAKEKey;
    NVServiceSettings* m_pServiceSettings;
    NVDeviceSettings* m_pDeviceSettings;
    id m_pAppSettings;
}

/// connection: absolute path of the metadata database.
- (id)initWithBackupParameters:(NSString*)connection
                    withAKEKey:(id)key
                       service:(NVServiceSettings*)serviceSettings
                        device:(NVDeviceSettings*)deviceSettings
                           app:(id)appSettings;

- (NSString*)backupMetaDataConnectionString;
- (id)aKEKey;
- (NVServiceSettings*)serviceSettings;
- (NVDeviceSettings*)deviceSettings;
- (id)appSettings;

@end

#endif
