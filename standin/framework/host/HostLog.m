#import "standin/framework/host/HostLog.h"

#import "hostapi/ExceptionManager.h"
#import "hostapi/NVHLNSException.h"
#include "standin/framework/host/ObjectiveCBridge.h"

static NSString* lastMessage = nil;

static void rememberMessage(NSString* message) {
    @synchronized([NVHLLogger class]) {
        [lastMessage release];
        lastMessage = [message copy];
    }
}

@implementation NVHLLogger

- (void)logMessage:(NSString*)message {
    if (message == nil) return;
    rememberMessage(message);
    NVWriteLog(0, [message UTF8String], __FILE__, __LINE__);
}

@end

@implementation NVHLLogger (HostLog)

+ (NSString*)lastMessage {
    @synchronized([NVHLLogger class]) {
        return [[lastMessage retain] autorelease];
    }
}

+ (void)forgetLastMessage {
    rememberMessage(nil);
}

@end

@implementation NVHLNSException

- (id)initWithException:(NSException*)exception message:(NSString*)message {
    self = [super init];
    if (self != nil) {
        m_pException = [exception retain];
        m_pMessage = [message copy];
    }
    return self;
}

- (void)dealloc {
    [m_pException release];
    [m_pMessage release];
    [super dealloc];
}

- (NSException*)exception {
    return m_pException;
}

- (NSString*)message {
    return m_pMessage;
}

@end

@implementation ExceptionManager

- (void)logException:(NVHLNSException*)exception {
    NSString* line = [NSString stringWithFormat:@"%@ : %@ : %@", [exception message],
                                                [[exception exception] name], [[exception exception] reason]];
    rememberMessage(line);
    NVWriteLog(1, [line UTF8String], __FILE__, __LINE__);
}

@end
