// How a backup ended.

#ifndef HOSTAPI_BACKUPEVENTARGS_H
#define HOSTAPI_BACKUPEVENTARGS_H

#import <Foundation/Foundation.h>

@class NVDeviceSettings;
@class NVServiceSettings;

/// The state of a service's backup.
enum {
    BackupStatusSucceeded = 1,
    BackupStatusFailed = 2,  ///< failed or stopped; the event's detail tells which
    BackupStatusNone = 4     ///< there has been no backup yet
};

@interface BackupEventArgs : NSObject {
@private
    int m_iBackupStatus;
    NSString* m_pServiceName;
    NSString* m_pDetail;
    NVServiceSettings* m_pServiceSettings;
    NVDeviceSettings* m_pDeviceSettings;
}

- (id)initWithBackupStatus:(int)status withServiceName:(NSString*)serviceName;

@property int backupStatus;
@property(copy) NSString* serviceName;

/// Why the backup did not succeed; nil when it did. "500": no data type is selected, or an NSException ended
/// the run. "110": there is no OAuth sign-in. "501": it was stopped. Any other number: the run's status.
@property(copy) NSString* detail;

/// What the backup worked with; nil when a stop request found no backup.
@property(retain) NVServiceSettings* serviceSettings;
@property(retain) NVDeviceSettings* deviceSettings;

@end

#endif
