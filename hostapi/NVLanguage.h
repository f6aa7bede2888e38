// The host's words in the user's language.

#ifndef HOSTAPI_NVLANGUAGE_H
#define HOSTAPI_NVLANGUAGE_H

#import <Foundation/Foundation.h>

@interface NVLanguage : NSObject

/// The name of a service's folder on a device: "My Flickr Items" for the service "Flickr" in "en". A culture
/// that is not known has the English names. With useAppCulture the application's own culture takes the place
/// of culture.
+ (NSString*)localizedServiceFolderName:(NSString*)serviceName
                             forCulture:(NSString*)culture
                          useAppCulture:(BOOL)useAppCulture;

@end

#endif
