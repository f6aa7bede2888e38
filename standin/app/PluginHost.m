// A run, as this host performs it:
//
//   main thread                              run's thread
//   -----------                              ------------
//   makes the plug-in, sends initialize
//   starts the thread                   ->   beginBackup…  (returns when the backup has ended)
//   runs the main run loop:
//     each second: the plug-in's timer         …
//     ten times a second: poll, which
//     asks for stop and pause, and tells       winds down, rests (BackupDidRestNotification)
//     the plug-in                         ->   begins again, or ends
//   backupEnded                          <-    didBackupFinish:, and the thread's end

#include "standin/app/PluginHost.h"

#import <Foundation/Foundation.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#import "hostapi/BackupEventArgs.h"
#import "hostapi/IPlugin.h"
#import "hostapi/NVDeviceSettings.h"
#import "hostapi/NVServiceSettings.h"
#import "hostapi/PluginBase.h"
#import "hostapi/ServiceSettings.h"
#import "standin/framework/host/BandwidthMonitor.h"
#import "standin/framework/host/HostLog.h"
#include "standin/framework/host/ObjectiveCBridge.h"

typedef PluginBase<IPlugin> Plugin;

static const NSTimeInterval kPollInterval = 0.1;

static char* copyOf(NSString* text) {
    return strdup(text == nil ? "" : [text UTF8String]);
}

static NSString* textOf(const char* utf8) {
    return [NSString stringWithUTF8String:utf8];
}

/// A plug-in object, initialised; nil with the reason in problem.
static Plugin* newPlugin(NSString** problem) {
    const Class base = [PluginBase class];
    NSString* path =
        [[[NSBundle mainBundle] resourcePath] stringByAppendingPathComponent:@"Plugins/FlickrPlugin.bundle"];
    NSBundle* bundle = [NSBundle bundleWithPath:path];
    if (bundle == nil || ![bundle load]) {
        *problem =
            [NSString stringWithFormat:@"The plug-in %@ cannot be loaded; install the program again.", path];
        return nil;
    }
    Class class = [bundle principalClass];
    if (![class isSubclassOfClass:base] || ![class conformsToProtocol:@protocol(IPlugin)]) {
        *problem =
            [NSString stringWithFormat:@"%@ is no plug-in of this program; install the program again.", path];
        return nil;
    }
    Plugin* plugin = [[class alloc] init];
    [plugin initialize];
    return plugin;
}

@interface HostedBackup : NSObject <PluginDelegate> {
    const PluginHostRun* m_pRun;
    Plugin* m_pPlugin;
    NVServiceSettings* m_pService;
    NVDeviceSettings* m_pDevice;

    // The main thread's.
    double m_dEarlierItems;  // of the passes that ended in a pause
    double m_dEarlierBytes;
    BOOL m_bIsStopSent;
    BOOL m_bIsPauseSent;
    BOOL m_bIsPauseShown;
    BOOL m_bIsEnded;

    // Under @synchronized(self).
    BOOL m_bIsResting;
    BackupEventArgs* m_pEvent;
    double m_dItems;  // of the last pass, when it ended
    double m_dBytes;
}
- (id)initWithRun:(const PluginHostRun*)run plugin:(Plugin*)plugin;
- (void)perform:(PluginHostOutcome*)outcome;
- (void)callPlugin;
- (void)resume;
@end

static void callPlugin(void* backup) {
    [(HostedBackup*)backup callPlugin];
}

@implementation HostedBackup

- (id)initWithRun:(const PluginHostRun*)run plugin:(Plugin*)plugin {
    self = [super init];
    if (self == nil) return nil;
    m_pRun = run;
    m_pPlugin = [plugin retain];

    NSMutableArray* dataTypes = [NSMutableArray array];
    for (const char* const* type = run->dataTypes; *type != NULL; ++type) [dataTypes addObject:textOf(*type)];
    NSCalendar* calendar =
        [[[NSCalendar alloc] initWithCalendarIdentifier:NSCalendarIdentifierGregorian] autorelease];
    NSDateComponents* day = [[[NSDateComponents alloc] init] autorelease];
    [day setYear:run->fromYear];
    [day setMonth:run->fromMonth];
    [day setDay:run->fromDay];
    [day setHour:12];  // there are days without a midnight

    m_pService = [[plugin getPluginSettingsV2] retain];
    [m_pService setConfigured:YES];
    [m_pService setDataTypes:dataTypes];
    [m_pService setServiceOAuthToken:textOf(run->authToken)];
    [m_pService setBackupFrom:[calendar dateFromComponents:day]];
    m_pDevice = [[NVDeviceSettings alloc] init];
    [m_pDevice setMountPoint:textOf(run->device)];
    [m_pDevice setDeviceCulture:textOf(run->culture)];
    return self;
}

- (void)dealloc {
    [m_pPlugin release];
    [m_pService release];
    [m_pDevice release];
    [m_pEvent release];
    [super dealloc];
}

- (void)perform:(PluginHostOutcome*)outcome {
    [NVHLLogger forgetLastMessage];
    [m_pPlugin setDelegate:self];
    [[NSNotificationCenter defaultCenter] addObserver:self
                                             selector:@selector(backupDidRest:)
                                                 name:BackupDidRestNotification
                                               object:m_pPlugin];
    NSTimer* poll = [NSTimer scheduledTimerWithTimeInterval:kPollInterval
                                                     target:self
                                                   selector:@selector(poll:)
                                                   userInfo:nil
                                                    repeats:YES];
    NSThread* thread = [[NSThread alloc] initWithTarget:self selector:@selector(backUp) object:nil];
    [thread start];
    while (!m_bIsEnded) {
        NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
        [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode beforeDate:[NSDate distantFuture]];
        [pool release];
    }
    while (![thread isFinished]) [NSThread sleepForTimeInterval:0.001];
    [thread release];
    [poll invalidate];
    [[NSNotificationCenter defaultCenter] removeObserver:self];
    [m_pPlugin setDelegate:nil];

    @synchronized(self) {
        outcome->backupStatus = [m_pEvent backupStatus];
        outcome->detail = copyOf([m_pEvent detail]);
        outcome->message = copyOf([NVHLLogger lastMessage]);
        outcome->items = m_dEarlierItems + m_dItems;
        outcome->bytes = m_dEarlierBytes + m_dBytes;
    }
}

// The run's thread.

- (void)backUp {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    m_pRun->guard(m_pRun->context, callPlugin, self);
    [self performSelectorOnMainThread:@selector(backupEnded) withObject:nil waitUntilDone:NO];
    [pool release];
}

- (void)callPlugin {
    @try {
        [m_pPlugin beginBackup:textOf(m_pRun->databaseName)
                   appSettings:nil
               serviceSettings:m_pService
                deviceSettings:m_pDevice
                    withAKEKey:nil];
    } @catch (NSException* exception) {
        [[[[NVHLLogger alloc] init] autorelease] logMessage:[exception reason]];
    }
}

- (void)didBackupFinish:(BackupEventArgs*)event {
    @synchronized(self) {
        if (m_pEvent != nil) return;  // a stop that found the backup already at its end
        m_pEvent = [event retain];
        if (!m_bIsResting) NVGetTotals(&m_dItems, &m_dBytes);
    }
}

- (void)backupDidRest:(NSNotification*)notification {
    @synchronized(self) {
        m_bIsResting = YES;
    }
}

// The main thread.

- (void)backupEnded {
    m_bIsEnded = YES;
}

- (void)didBackupStateUpdate:(double)count totalBackupSize:(double)size forDevice:(NVDeviceSettings*)device {
    m_pRun->progress(m_pRun->context, m_dEarlierItems + count, m_dEarlierBytes + size);
}

/// Requests are repeated as long as the framework knows of none: the beginning of a run clears those that
/// came before it.
- (void)poll:(NSTimer*)timer {
    if (m_bIsEnded) return;
    const BOOL isStopWanted = m_pRun->stopRequested(m_pRun->context) != 0;
    const BOOL isPauseWanted = m_pRun->pauseRequested(m_pRun->context) != 0;
    BOOL isResting;
    @synchronized(self) {
        isResting = m_bIsResting;
    }
    if (isResting && !m_bIsPauseShown) {
        m_bIsPauseShown = YES;
        double items, bytes;
        NVGetTotals(&items, &bytes);
        m_dEarlierItems += items;
        m_dEarlierBytes += bytes;
        m_pRun->paused(m_pRun->context, 1);
    }

    if (isStopWanted) {
        if (!m_bIsStopSent || !NVIsBackupStopped()) [m_pPlugin stopBackup];
        m_bIsStopSent = YES;
    } else if (isResting) {
        if (!isPauseWanted) [self resume];
    } else if (isPauseWanted || m_bIsPauseSent) {
        if (!m_bIsPauseSent || !NVIsBackupStopped()) [m_pPlugin bandwidthBecameLow];
        m_bIsPauseSent = YES;
    }
}

/// The backup rests: nothing of it touches the device until it is told to begin again. A device that could
/// not be put in order meanwhile asks for a stop.
- (void)resume {
    m_pRun->paused(m_pRun->context, 0);
    if (m_pRun->stopRequested(m_pRun->context)) {
        [m_pPlugin stopBackup];
        m_bIsStopSent = YES;
        return;
    }
    m_bIsPauseShown = NO;
    m_bIsPauseSent = NO;
    @synchronized(self) {
        m_bIsResting = NO;
    }
    [m_pPlugin bandwidthRecovered];
}

@end

char* PluginHostBackUp(const PluginHostRun* run, PluginHostOutcome* outcome) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSString* problem = nil;
    Plugin* plugin = newPlugin(&problem);
    if (plugin != nil) {
        HostedBackup* backup = [[HostedBackup alloc] initWithRun:run plugin:plugin];
        [backup perform:outcome];
        [backup release];
        [plugin release];
    }
    char* result = problem == nil ? NULL : copyOf(problem);
    [pool release];
    return result;
}

typedef enum { Plain, Secret } Kind;

/// A value for the user's eyes: "none" for nothing, and nothing of a secret.
static NSString* shown(id value, Kind kind) {
    if ([value isKindOfClass:[NSArray class]]) value = [value componentsJoinedByString:@", "];
    if (value == nil || [value isEqual:@""]) return @"none";
    return kind == Secret ? @"********" : [value description];
}

char* PluginHostDescribe(void (*line)(void* context, const char* label, const char* value), void* context) {
    static const struct {
        NSString* label;
        NSString* key;  // of NVServiceSettings
        Kind kind;
    } kSettings[] = {{@"Service", @"serviceName", Plain},
                     {@"Service id", @"serviceID", Plain},
                     {@"Legend", @"legend", Plain},
                     {@"Sign-in", @"authMechanism", Plain},
                     {@"Data types", @"dataTypes", Plain},
                     {@"Enabled", @"enabled", Plain},
                     {@"Configured", @"configured", Plain},
                     {@"API key", @"serviceAPIKey", Secret},
                     {@"API secret", @"serviceAPISecret", Secret},
                     {@"CEK", @"cEK", Secret},
                     {@"PKEK", @"pKEK", Secret},
                     {@"Backup status", @"backupStatus", Plain},
                     {@"Backup error", @"backupError", Plain}};
    NSString* secrets =
        @"service.apiKey service.apiSecret service.autheticationToken service.tokenFrob service.CEK";

    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSString* problem = nil;
    Plugin* plugin = [newPlugin(&problem) autorelease];
    if (plugin != nil) {
        line(context, "Version", [shown([plugin getVersion], Plain) UTF8String]);
        line(context, "For host version", [shown([plugin getTargetHostVersion], Plain) UTF8String]);
        line(context, "Keywords", [shown([plugin getKeywordString], Plain) UTF8String]);
        NVServiceSettings* settings = [plugin getPluginSettingsV2];
        for (size_t i = 0; i < sizeof kSettings / sizeof *kSettings; ++i) {
            id value = [settings valueForKey:kSettings[i].key];
            line(context, [kSettings[i].label UTF8String], [shown(value, kSettings[i].kind) UTF8String]);
        }
        NSDictionary* dictionary = [[plugin getPluginSettings] settings];
        for (NSString* key in [[dictionary allKeys] sortedArrayUsingSelector:@selector(compare:)]) {
            const Kind kind = [secrets rangeOfString:key].location != NSNotFound ? Secret : Plain;
            line(context, [key UTF8String], [shown([dictionary objectForKey:key], kind) UTF8String]);
        }
    }
    char* result = problem == nil ? NULL : copyOf(problem);
    [pool release];
    return result;
}

static void logToSystem(NSString* message) {
    syslog(LOG_USER | LOG_INFO, "%s", [message UTF8String]);
}

void PluginHostQuietSystemLog(void) {
    _NSLog_printf_handler = logToSystem;
}
