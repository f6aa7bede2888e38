// The host's log, for plug-in objects.

#ifndef HOSTAPI_NVHLLOGGER_H
#define HOSTAPI_NVHLLOGGER_H

#import <Foundation/Foundation.h>

/// A logger is cheap; one can be made for a single message. Thread-safe.
@interface NVHLLogger : NSObject

- (void)logMessage:(NSString*)message;

@end

#endif
