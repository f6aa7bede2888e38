// A service's settings as a dictionary.

#ifndef HOSTAPI_SERVICESETTINGS_H
#define HOSTAPI_SERVICESETTINGS_H

#import <Foundation/Foundation.h>

/// Settings by keys such as "service.name". The host's older form; NVServiceSettings is the newer one.
@interface ServiceSettings : NSObject {
@private
    NSMutableDictionary* m_pSettings;
}

/// Never nil; empty at first.
@property(retain) NSMutableDictionary* settings;

@end

#endif
