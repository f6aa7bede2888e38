#import "hostapi/NVLanguage.h"

#include <stdlib.h>

#include "standin/framework/host/ObjectiveCBridge.h"

@implementation NVLanguage

+ (NSString*)localizedServiceFolderName:(NSString*)serviceName
                             forCulture:(NSString*)culture
                          useAppCulture:(BOOL)useAppCulture {
    (void)serviceName;  // this host has one service
    if (useAppCulture) culture = [[NSLocale currentLocale] localeIdentifier];
    char* name = NVServiceFolderName(culture == nil ? "" : [culture UTF8String]);
    NSString* result = name == NULL ? nil : [NSString stringWithUTF8String:name];
    free(name);
    return result;
}

@end
