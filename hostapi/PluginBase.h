// Base class of plug-in objects.

#ifndef HOSTAPI_PLUGINBASE_H
#define HOSTAPI_PLUGINBASE_H

#import <Foundation/Foundation.h>

@class NVDeviceSettings;
@class NVServiceSettings;

/// Keeps what a backup was begun with, so that it can be begun again, and watches the bandwidth.
@interface PluginBase : NSObject {
@private
    NSString* m_pBaseBackupMetaDataConnectionString;
    id m_pBaseAppSettings;
    NVServiceSettings* m_pBaseServiceSettings;
    NVDeviceSettings* m_pBaseDeviceSettings;
    id m_pBaseAKEKey;
    BOOL m_bIsMonitoringBandwidth;
    BOOL m_bIsBandwidthLow;
}

// The arguments of the backup that was begun last. May be read and set from any thread.
@property(retain) NSString* baseBackupMetaDataConnectionString;
@property(retain) id baseAppSettings;
@property(retain) NVServiceSettings* baseServiceSettings;
@property(retain) NVDeviceSettings* baseDeviceSettings;
@property(retain) id baseAKEKey;

/// Starts to watch the bandwidth; no harm when it is watched already. While it watches, the monitor sends the
/// plug-in pauseBackup when there is too little, and releaseBackupWaitConditionForResume: later.
- (void)monitorBandwidth;

/// Ends the watch; no harm when there is none.
- (void)stopMonitorBandwidth;

/// Whether a pauseBackup that this backup got came from the monitor. Asked when the run has wound down, so
/// the answer stays YES from before the monitor's pauseBackup until the watch ends, whatever the bandwidth
/// does in between.
- (BOOL)shouldBackupPauseForBandwidth;

@end

#endif
