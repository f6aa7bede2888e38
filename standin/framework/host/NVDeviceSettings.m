#import "hostapi/NVDeviceSettings.h"

@implementation NVDeviceSettings

@synthesize mountPoint = m_pMountPoint;
@synthesize deviceCulture = m_pDeviceCulture;
@synthesize mode = m_iMode;

- (void)dealloc {
    [m_pMountPoint release];
    [m_pDeviceCulture release];
    [super dealloc];
}

@end
