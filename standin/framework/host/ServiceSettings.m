#import "hostapi/ServiceSettings.h"

@implementation ServiceSettings

@synthesize settings = m_pSettings;

- (id)init {
    self = [super init];
    if (self != nil) m_pSettings = [[NSMutableDictionary alloc] init];
    return self;
}

- (void)dealloc {
    [m_pSettings release];
    [super dealloc];
}

@end
