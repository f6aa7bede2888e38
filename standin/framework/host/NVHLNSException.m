#import "hostapi/NVHLNSException.h"

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
