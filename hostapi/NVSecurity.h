// Keys and ciphers of the host.

#ifndef HOSTAPI_NVSECURITY_H
#define HOSTAPI_NVSECURITY_H

#import <Foundation/Foundation.h>

/// Stands for AES in the keyType arguments.
enum { NVSecurityKeyTypeAES = 2 };

/// Thread-safe.
@interface NVSecurity : NSObject

+ (NVSecurity*)sharedInstance;

/// A key of size bits (256), derived from material and salt; nil material is as good as empty. The same
/// arguments give the same key. nil for a size that is not supported.
- (id)generateKey:(NSData*)material salt:(NSString*)salt encryptionSize:(int)size;

/// Deciphers data with the key derived from passPhrase (may be nil) and salt. nil for data that was not made
/// with that key, and for a size or type that is not supported.
- (NSData*)decryptedDataV2:(NSData*)data
                passPhrase:(NSString*)passPhrase
                      salt:(NSString*)salt
                   keySize:(int)keySize
                   keyType:(int)keyType;

@end

#endif
