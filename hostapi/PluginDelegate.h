// Whom a plug-in tells about its backup.

#ifndef HOSTAPI_PLUGINDELEGATE_H
#define HOSTAPI_PLUGINDELEGATE_H

#import <Foundation/Foundation.h>

@class BackupEventArgs;
@class NVDeviceSettings;

/// The host's receiver of progress and outcome. The plug-in does not retain it.
@protocol PluginDelegate <NSObject>

/// About once a second during a run, on the main thread: items and bytes that the run has put on the device.
- (void)didBackupStateUpdate:(double)count totalBackupSize:(double)size forDevice:(NVDeviceSettings*)device;

/// The outcome of a run, once for each, on the run's thread; also the answer to a stop request that finds no
/// run, then on the thread of that request. The core still exists during the first and is gone soon after it.
- (void)didBackupFinish:(BackupEventArgs*)event;

@end

#endif
