#import "standin/framework/host/HostLog.h"

#include "standin/framework/host/ObjectiveCBridge.h"

static NSString* lastMessage = nil;

@implementation NVHLLogger

- (void)logMessage:(NSString*)message {
    if (message == nil) return;
    [NVHLLogger rememberMessage:message];
    NVWriteLog(0, [message UTF8String], __FILE__, __LINE__);
}

@end

@implementation NVHLLogger (HostLog)

+ (void)rememberMessage:(NSString*)message {
    @synchronized([NVHLLogger class]) {
        [lastMessage release];
        lastMessage = [message copy];
    }
}

+ (NSString*)lastMessage {
    @synchronized([NVHLLogger class]) {
        return [[lastMessage retain] autorelease];
    }
}

+ (void)forgetLastMessage {
    [self rememberMessage:nil];
}

@end
