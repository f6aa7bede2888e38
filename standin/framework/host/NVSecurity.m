#import "hostapi/NVSecurity.h"

#include <stdlib.h>

#include "standin/framework/host/ObjectiveCBridge.h"

enum { kKeyBits = 8 * NVKeyLength };

@implementation NVSecurity

+ (NVSecurity*)sharedInstance {
    static NVSecurity* instance = nil;
    @synchronized(self) {
        if (instance == nil) instance = [[NVSecurity alloc] init];
    }
    return instance;
}

- (id)generateKey:(NSData*)material salt:(NSString*)salt encryptionSize:(int)size {
    if (size != kKeyBits || salt == nil) return nil;
    unsigned char key[NVKeyLength];
    const char* bytes = material == nil ? "" : [material bytes];
    if (!NVDeriveKey(bytes, [material length], [salt UTF8String], key)) return nil;
    return [NSData dataWithBytes:key length:sizeof key];
}

- (NSData*)decryptedDataV2:(NSData*)data
                passPhrase:(NSString*)passPhrase
                      salt:(NSString*)salt
                   keySize:(int)keySize
                   keyType:(int)keyType {
    if (data == nil || salt == nil || keySize != kKeyBits || keyType != NVSecurityKeyTypeAES) return nil;
    size_t length = 0;
    char* plain = NVDecrypt(passPhrase == nil ? "" : [passPhrase UTF8String], [salt UTF8String], [data bytes],
                            [data length], &length);
    if (plain == NULL) return nil;
    return [NSData dataWithBytesNoCopy:plain length:length freeWhenDone:YES];
}

@end
