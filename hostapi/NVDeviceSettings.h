// The device to which a backup goes.

#ifndef HOSTAPI_NVDEVICESETTINGS_H
#define HOSTAPI_NVDEVICESETTINGS_H

#import <Foundation/Foundation.h>

@interface NVDeviceSettings : NSObject {
@private
    NSString* m_pMountPoint;
    NSString* m_pDeviceCulture;
    int m_iMode;
}

/// Absolute path of the directory where the device is mounted, without a "/" at its end.
@property(copy) NSString* mountPoint;
/// The culture of names on the device: "en", "ja".
@property(copy) NSString* deviceCulture;
/// 0 is the mode of a device that belongs to this computer.
@property int mode;

@end

#endif
