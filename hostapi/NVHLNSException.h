// An exception together with what was being done when it came.

#ifndef HOSTAPI_NVHLNSEXCEPTION_H
#define HOSTAPI_NVHLNSEXCEPTION_H

#import <Foundation/Foundation.h>

/// What the plug-in hands to the ExceptionManager; it is not thrown itself.
@interface NVHLNSException : NSObject {
@private
    NSException* m_pException;
    NSString* m_pMessage;
}

- (id)initWithException:(NSException*)exception message:(NSString*)message;

- (NSException*)exception;
/// What failed: "BeginBackup error".
- (NSString*)message;

@end

#endif
