// Base64 text.

#ifndef HOSTAPI_NSDATA_BASE64_H
#define HOSTAPI_NSDATA_BASE64_H

#import <Foundation/Foundation.h>

@interface NSData (Base64)

/// The bytes that the text encodes, characters outside the alphabet left out. nil for text that is no base64,
/// and for nil.
+ (NSData*)dataFromBase64String:(NSString*)text;

@end

#endif
