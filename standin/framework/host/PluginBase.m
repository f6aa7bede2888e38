#import "hostapi/PluginBase.h"

#import "hostapi/IPlugin.h"
#import "hostapi/NVDeviceSettings.h"
#import "hostapi/NVServiceSettings.h"
#import "standin/framework/host/BandwidthMonitor.h"

// GNUstep's, which none of its headers declares.
extern const char* GSPathHandling(const char* mode);

NSString* const BackupDidRestNotification = @"BackupDidRest";

@implementation PluginBase

@synthesize baseBackupMetaDataConnectionString = m_pBaseBackupMetaDataConnectionString;
@synthesize baseAppSettings = m_pBaseAppSettings;
@synthesize baseServiceSettings = m_pBaseServiceSettings;
@synthesize baseDeviceSettings = m_pBaseDeviceSettings;
@synthesize baseAKEKey = m_pBaseAKEKey;

/// GNUstep takes "\\" in a path for a separator unless it is told that this is no Windows.
+ (void)load {
    GSPathHandling("unix");
}

- (void)dealloc {
    [m_pBaseBackupMetaDataConnectionString release];
    [m_pBaseAppSettings release];
    [m_pBaseServiceSettings release];
    [m_pBaseDeviceSettings release];
    [m_pBaseAKEKey release];
    [super dealloc];
}

- (void)monitorBandwidth {
    @synchronized(self) {
        m_bIsMonitoringBandwidth = YES;
    }
}

- (void)stopMonitorBandwidth {
    @synchronized(self) {
        m_bIsMonitoringBandwidth = NO;
        m_bIsBandwidthLow = NO;
    }
}

- (BOOL)shouldBackupPauseForBandwidth {
    BOOL answer;
    @synchronized(self) {
        answer = m_bIsMonitoringBandwidth && m_bIsBandwidthLow;
    }
    if (answer) {
        [[NSNotificationCenter defaultCenter] postNotificationName:BackupDidRestNotification object:self];
    }
    return answer;
}

@end

@implementation PluginBase (BandwidthMonitor)

- (void)bandwidthBecameLow {
    @synchronized(self) {
        m_bIsBandwidthLow = YES;
    }
    [(id<IPlugin>)self pauseBackup];
}

- (void)bandwidthRecovered {
    // The answer of shouldBackupPauseForBandwidth stays: the run may still be winding down for that pause.
    [(id<IPlugin>)self releaseBackupWaitConditionForResume:YES];
}

@end
