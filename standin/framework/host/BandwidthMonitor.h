// The bandwidth monitor of plug-in objects, as the host program works it.

#ifndef STANDIN_FRAMEWORK_HOST_BANDWIDTHMONITOR_H
#define STANDIN_FRAMEWORK_HOST_BANDWIDTHMONITOR_H

#import <Foundation/Foundation.h>

#import "hostapi/PluginBase.h"

/// Posted by a plug-in whose backup has wound down for a pause, on the run's thread; the backup does nothing
/// until bandwidthRecovered. (It is the answer YES of shouldBackupPauseForBandwidth.)
extern NSString* const BackupDidRestNotification;

/// What the monitor is told. This host measures nothing: its user says when there is too little bandwidth.
@interface PluginBase (BandwidthMonitor)

/// Pauses the plug-in's backup. May be repeated.
- (void)bandwidthBecameLow;

/// Lets it begin again. May come before it rests.
- (void)bandwidthRecovered;

@end

#endif
