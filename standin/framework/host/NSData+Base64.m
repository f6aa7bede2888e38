#import "hostapi/NSData+Base64.h"

@implementation NSData (Base64)

+ (NSData*)dataFromBase64String:(NSString*)text {
    if (text == nil) return nil;
    return [[[NSData alloc] initWithBase64EncodedString:text
                                                options:NSDataBase64DecodingIgnoreUnknownCharacters]
        autorelease];
}

@end
