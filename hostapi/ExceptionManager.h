// Where the host collects exceptions.

#ifndef HOSTAPI_EXCEPTIONMANAGER_H
#define HOSTAPI_EXCEPTIONMANAGER_H

#import <Foundation/Foundation.h>

@class NVHLNSException;

/// Thread-safe.
@interface ExceptionManager : NSObject

/// Puts the exception, its reason and the message that it came with, into the host's log.
- (void)logException:(NVHLNSException*)exception;

@end

#endif
