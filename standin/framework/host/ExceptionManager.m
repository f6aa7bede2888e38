#import "hostapi/ExceptionManager.h"

#import "hostapi/NVHLNSException.h"
#import "standin/framework/host/HostLog.h"
#include "standin/framework/host/ObjectiveCBridge.h"

@implementation ExceptionManager

- (void)logException:(NVHLNSException*)exception {
    NSString* line = [NSString stringWithFormat:@"%@ : %@ : %@", [exception message],
                                                [[exception exception] name], [[exception exception] reason]];
    [NVHLLogger rememberMessage:line];
    NVWriteLog(1, [line UTF8String], __FILE__, __LINE__);
}

@end
