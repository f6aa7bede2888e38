// What the leak detector of a build with sanitizers has to know of the Objective-C runtime and of Foundation:
// they make classes, method lists and a few objects when something is used first, keep them for ever, and
// hold them where the detector does not look. The thread that writes the log may not have begun when a
// process ends, and what it is to be given is held by nobody then. Everything else that is found is a leak of
// this project's.

#import "hostapi/PluginBase.h"

#if defined(__SANITIZE_ADDRESS__)

#include <sanitizer/lsan_interface.h>

const char* __lsan_default_suppressions(void);

const char* __lsan_default_suppressions(void) {
    return "leak:objc_malloc\n"
           "leak:class_copyMethodList\n"
           "leak:writeSoon\n";
}

@implementation PluginBase (LeakCheck)

/// Uses such things first, with the detector looking away: their stacks end in Foundation like those of every
/// other object, so that they cannot be told by a name.
+ (void)initialize {
    if (self != [PluginBase class]) return;
    __lsan_disable();
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    [NSBundle mainBundle];
    NSCalendar* calendar =
        [[[NSCalendar alloc] initWithCalendarIdentifier:NSCalendarIdentifierGregorian] autorelease];
    [calendar dateFromComponents:[[[NSDateComponents alloc] init] autorelease]];
    [[[[NSDateComponents alloc] init] autorelease] setValue:[NSNumber numberWithInt:1] forKey:@"year"];
    [pool release];
    __lsan_enable();
}

@end

#endif
