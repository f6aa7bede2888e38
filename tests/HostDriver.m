#include "tests/HostDriver.h"

#import <Foundation/Foundation.h>
#import <objc/runtime.h>

#import "hostapi/BackupEventArgs.h"
#import "hostapi/BackupParameters.h"
#import "hostapi/IPlugin.h"
#import "hostapi/NVDeviceSettings.h"
#import "hostapi/NVServiceSettings.h"
#import "hostapi/PluginBase.h"
#import "hostapi/ServiceSettings.h"
#import "standin/framework/host/BandwidthMonitor.h"
#import "standin/framework/host/HostLog.h"

@interface PluginBase (Tested) <IPlugin>
- (void)processBackup:(BackupParameters*)parameters;
@end

/// A text whose class has the name by which the plug-in knows texts.
@interface NSCFString : NSString {
    NSString* m_pText;
}
- (id)initWithText:(NSString*)text;
@end

@implementation NSCFString
- (id)initWithText:(NSString*)text {
    self = [super init];
    if (self != nil) m_pText = [text copy];
    return self;
}
- (void)dealloc {
    [m_pText release];
    [super dealloc];
}
- (NSUInteger)length {
    return [m_pText length];
}
- (unichar)characterAtIndex:(NSUInteger)index {
    return [m_pText characterAtIndex:index];
}
@end

@interface TestDevice : NVDeviceSettings
@end

@interface TestHost : NSObject <PluginDelegate> {
@public
    HostCallbacks m_Callbacks;
    PluginBase* m_pPlugin;
    NVServiceSettings* m_pService;
    NVDeviceSettings* m_pDevice;
    NSThread* m_pThread;
    NSString* m_pMessage;
    BOOL m_bIsRunning;  // under @synchronized(self), so that what the thread did is seen
}
- (void)run;
- (BOOL)isRunning;
- (void)send:(NSString*)message;
@end

static TestHost* host;  // the one that there is
static int plugins;     // plug-in objects alive
static int rests;       // of the run's thread, on a condition
static IMP baseDealloc, baseMonitor, baseKey, conditionWait;

void HostRaise(const char* reason) {
    [NSException raise:@"TestException" format:@"%s", reason];
}

// Observers before three methods of the base class and one of Foundation's.

typedef id (*Original)(id, SEL);  // also for methods without a result

static id countDealloc(id self, SEL selector) {
    --plugins;
    ((Original)baseDealloc)(self, selector);
    return nil;
}

static id observeMonitor(id self, SEL selector) {
    if (host->m_Callbacks.begins(host->m_Callbacks.context)) HostRaise("begin");
    ((Original)baseMonitor)(self, selector);
    return nil;
}

static id observeKey(id self, SEL selector) {
    NSString* key = ((Original)baseKey)(self, selector);
    if (host->m_Callbacks.resumes != NULL)
        host->m_Callbacks.resumes(host->m_Callbacks.context, [key UTF8String]);
    return key;
}

static id observeWait(id self, SEL selector) {
    if ([NSThread currentThread] == host->m_pThread) __sync_fetch_and_add(&rests, 1);
    ((Original)conditionWait)(self, selector);
    return nil;
}

static IMP replaceMethod(Class class, SEL selector, IMP replacement) {
    Method method = class_getInstanceMethod(class, selector);
    IMP original = method_getImplementation(method);
    class_replaceMethod(class, selector, replacement, method_getTypeEncoding(method));
    return original;
}

@implementation TestDevice

- (NSString*)deviceCulture {
    if (host->m_Callbacks.cultureAsked != NULL) host->m_Callbacks.cultureAsked(host->m_Callbacks.context);
    return [super deviceCulture];
}

@end

static void perform(void* message) {
    [host send:message];
}

@implementation TestHost

- (void)dealloc {
    [m_pPlugin release];
    [m_pService release];
    [m_pDevice release];
    [m_pThread release];
    [m_pMessage release];
    [super dealloc];
}

- (void)didBackupFinish:(BackupEventArgs*)event {
    const char* detail = [event detail] == nil ? "" : [[event detail] UTF8String];
    const int hasSettings = [event serviceSettings] == m_pService && [event deviceSettings] == m_pDevice;
    if (m_Callbacks.finished(m_Callbacks.context, [event backupStatus], detail, [m_pService backupStatus],
                             hasSettings)) {
        HostRaise("finish");
    }
}

- (void)didBackupStateUpdate:(double)count totalBackupSize:(double)size forDevice:(NVDeviceSettings*)device {
    if (m_Callbacks.ticked(m_Callbacks.context, count, size,
                           [NSThread isMainThread] && device == m_pDevice)) {
        HostRaise("tick");
    }
}

- (void)backupDidRest:(NSNotification*)notification {
    if (m_Callbacks.rests != NULL) m_Callbacks.rests(m_Callbacks.context);
}

- (void)run {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    m_Callbacks.guard(m_Callbacks.context, perform, m_pMessage);
    [pool release];
    @synchronized(self) {
        m_bIsRunning = NO;
    }
}

- (BOOL)isRunning {
    @synchronized(self) {
        return m_bIsRunning;
    }
}

- (void)send:(NSString*)message {
    if ([message isEqualToString:@"begin"]) {
        [m_pPlugin beginBackup:@"backup.db"
                   appSettings:@"app"
               serviceSettings:m_pService
                deviceSettings:m_pDevice
                    withAKEKey:@"key"];
    } else if ([message isEqualToString:@"process"]) {
        [m_pPlugin processBackup:[[[BackupParameters alloc] initWithBackupParameters:@"/x/backup.db"
                                                                          withAKEKey:nil
                                                                             service:m_pService
                                                                              device:m_pDevice
                                                                                 app:nil] autorelease]];
    } else if ([message isEqualToString:@"resume"] || [message isEqualToString:@"end"]) {
        [m_pPlugin releaseBackupWaitConditionForResume:[message isEqualToString:@"resume"]];
    } else if ([message isEqualToString:@"low"]) {
        [m_pPlugin bandwidthBecameLow];
    } else if ([message isEqualToString:@"tick"]) {
        NSTimer* timer = [NSTimer timerWithTimeInterval:60
                                                 target:m_pPlugin
                                               selector:@selector(timerUpdater:)
                                               userInfo:m_pDevice
                                                repeats:YES];
        [timer fire];
        [timer invalidate];
    } else if ([message isEqualToString:@"recovered"]) {
        [m_pPlugin bandwidthRecovered];
    } else {
        [m_pPlugin performSelector:NSSelectorFromString(message)];
    }
}

@end

int HostLoadBundle(const char* path) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    [PluginBase class];  // see standin/framework/host/LeakCheck.m
    const BOOL isLoaded = [[NSBundle bundleWithPath:[NSString stringWithUTF8String:path]] load];
    [pool release];
    return isLoaded;
}

Host* HostNew(const HostCallbacks* callbacks) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    if (baseDealloc == NULL) {
        Class base = [PluginBase class];
        baseDealloc = replaceMethod(base, @selector(dealloc), (IMP)countDealloc);
        baseKey = replaceMethod(base, @selector(baseAKEKey), (IMP)observeKey);
        baseMonitor = replaceMethod(base, @selector(monitorBandwidth), (IMP)observeMonitor);
        conditionWait = replaceMethod([NSCondition class], @selector(wait), (IMP)observeWait);
    }
    [NVHLLogger forgetLastMessage];
    host = [[TestHost alloc] init];
    host->m_Callbacks = *callbacks;
    ++plugins;
    host->m_pPlugin = [[NSClassFromString(@"FlickrPlugin") alloc] init];
    host->m_pService = [[NVServiceSettings alloc] init];
    host->m_pDevice = [[TestDevice alloc] init];
    [host->m_pService setServiceName:@"Flickr"];
    [host->m_pPlugin setDelegate:host];
    [[NSNotificationCenter defaultCenter] addObserver:host
                                             selector:@selector(backupDidRest:)
                                                 name:BackupDidRestNotification
                                               object:nil];
    [pool release];
    return (Host*)host;
}

int HostFree(Host* unused) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    HostRunLoop(unused, 60, NULL, NULL);
    [[NSNotificationCenter defaultCenter] removeObserver:host];
    [host->m_pThread release];  // which retains the host
    host->m_pThread = nil;
    [host release];
    host = nil;
    [pool release];
    return plugins;
}

void HostSet(Host* unused, const char* key, const char* value) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSString* name = [NSString stringWithUTF8String:key];
    NSString* text = value == NULL ? nil : [NSString stringWithUTF8String:value];
    if ([name isEqualToString:@"dataTypes"]) {
        NSMutableArray* types = [[[text componentsSeparatedByString:@";"] mutableCopy] autorelease];
        [types removeLastObject];
        [host->m_pService setDataTypes:types];
    } else if ([name isEqualToString:@"mode"]) {
        [host->m_pDevice setMode:[text intValue]];
    } else if ([host->m_pDevice respondsToSelector:NSSelectorFromString(name)]) {
        [host->m_pDevice setValue:text forKey:name];
    } else {
        [host->m_pService setValue:text forKey:name];
    }
    [pool release];
}

void HostSetBackupFrom(Host* unused, int year, int month, int day) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSDateComponents* parts = [[[NSDateComponents alloc] init] autorelease];
    [parts setYear:year];
    [parts setMonth:month];
    [parts setDay:day];
    [parts setHour:12];
    NSCalendar* calendar =
        [[[NSCalendar alloc] initWithCalendarIdentifier:NSCalendarIdentifierGregorian] autorelease];
    [host->m_pService setBackupFrom:[calendar dateFromComponents:parts]];
    [pool release];
}

void HostSetBackupFromText(Host* unused, const char* text) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSString* plain = text == NULL ? nil : [NSString stringWithUTF8String:text];
    [host->m_pService
        setBackupFrom:plain == nil ? nil : [[[NSCFString alloc] initWithText:plain] autorelease]];
    [pool release];
}

void HostTakePluginSettings(Host* unused) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    [host->m_pService release];
    host->m_pService = [[host->m_pPlugin getPluginSettingsV2] retain];
    [pool release];
}

void HostSend(Host* unused, const char* message) {
    // Also for threads that Foundation does not know.
    const BOOL isForeign = GSRegisterCurrentThread();
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    [host send:[NSString stringWithUTF8String:message]];
    [pool release];
    if (isForeign) GSUnregisterCurrentThread();
}

void HostStart(Host* unused, const char* message) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    HostRunLoop(unused, 60, NULL, NULL);
    [host->m_pThread release];
    [host->m_pMessage release];
    host->m_pMessage = [[NSString alloc] initWithUTF8String:message];
    host->m_pThread = [[NSThread alloc] initWithTarget:host selector:@selector(run) object:nil];
    host->m_bIsRunning = YES;
    rests = 0;
    [host->m_pThread start];
    [pool release];
}

int HostRunLoop(Host* unused, double seconds, int (*done)(void* context), void* context) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSDate* end = [NSDate dateWithTimeIntervalSinceNow:seconds];
    BOOL isDone = NO;
    while (!isDone && [end timeIntervalSinceNow] > 0) {
        NSAutoreleasePool* inner = [[NSAutoreleasePool alloc] init];
        isDone = done != NULL ? done(context) != 0 : ![host isRunning];
        [[NSRunLoop mainRunLoop] runMode:NSDefaultRunLoopMode
                              beforeDate:[NSDate dateWithTimeIntervalSinceNow:0.002]];
        if (!isDone) [NSThread sleepForTimeInterval:0.001];  // a loop without timers returns at once
        [inner release];
    }
    [pool release];
    return isDone;
}

int HostIsWaiting(Host* unused) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    BOOL isWaiting;
    @synchronized(host->m_pPlugin) {
        isWaiting = [[host->m_pPlugin valueForKey:@"m_bIsPauseForBandwidth"] boolValue];
    }
    [pool release];
    return isWaiting;
}

int HostRests(Host* unused) {
    return __sync_fetch_and_add(&rests, 0);
}

int HostIsRunning(Host* unused) {
    return [host isRunning];
}

static NSString* textOf(id value) {
    if (value == nil) return @"nil";
    if ([value isKindOfClass:[NSArray class]]) {
        return [NSString stringWithFormat:@"[%@]", [value componentsJoinedByString:@"|"]];
    }
    if ([value isKindOfClass:[NSData class]]) {
        return [NSString stringWithFormat:@"%d bytes", (int)[value length]];
    }
    return [value description];
}

static const char* keep(NSString* text) {
    static NSData* kept = nil;
    [kept release];
    kept = [[NSData alloc] initWithBytes:[text UTF8String] length:strlen([text UTF8String]) + 1];
    return [kept bytes];
}

const char* HostGet(Host* unused, const char* key) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSArray* words = [[NSString stringWithUTF8String:key] componentsSeparatedByString:@" "];
    NSString* first = [words objectAtIndex:0];
    id value;
    if ([first isEqualToString:@"settings"]) {
        value = [[[host->m_pPlugin getPluginSettings] settings] objectForKey:[words lastObject]];
    } else if ([first isEqualToString:@"settingsV2"]) {
        value = [[host->m_pPlugin getPluginSettingsV2] valueForKey:[words lastObject]];
    } else {
        value = [host->m_pPlugin performSelector:NSSelectorFromString(first)];
    }
    const char* text = keep(textOf(value));
    [pool release];
    return text;
}

double HostTimerInterval(Host* unused) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    Ivar variable = class_getInstanceVariable([host->m_pPlugin class], "m_pUpdateTimer");
    NSTimer* timer;
    @synchronized(host->m_pPlugin) {
        timer = [[object_getIvar(host->m_pPlugin, variable) retain] autorelease];
    }
    const double interval = timer == nil ? 0 : [timer timeInterval];
    [pool release];
    return interval;
}

const char* HostLastMessage(void) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSString* message = [NVHLLogger lastMessage];
    const char* text = keep(message == nil ? @"" : message);
    [pool release];
    return text;
}
