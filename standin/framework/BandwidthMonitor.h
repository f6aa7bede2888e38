// The bandwidth monitor of plug-in objects, as the host program works it.

#ifndef STANDIN_FRAMEWORK_BANDWIDTHMONITOR_H
#define STANDIN_FRAMEWORK_BANDWIDTHMONITOR_H

#import <Foundation/Foundation.h>

#import "hostapi/PluginBase.h"

/// What the monitor is told. This host measures nothing: its user says when there is too little bandwidth.
@interface PluginBase (BandwidthMonitor)

/// Pauses the plug-in's backup. May be repeated.
- (void)bandwidthBecameLow;

/// Lets it begin again.
- (void)bandwidthRecovered;

@end

#endif
