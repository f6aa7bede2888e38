// What a plug-in object has logged, for the host program.

#ifndef STANDIN_FRAMEWORK_HOST_HOSTLOG_H
#define STANDIN_FRAMEWORK_HOST_HOSTLOG_H

#import "hostapi/NVHLLogger.h"

@interface NVHLLogger (HostLog)

/// The last message of any logger or exception manager; nil when there is none since forgetLastMessage.
+ (NSString*)lastMessage;
+ (void)forgetLastMessage;
/// What the loggers themselves say.
+ (void)rememberMessage:(NSString*)message;

@end

#endif
