#import "host/FlickrPlugin.h"

#include <stdlib.h>
#include <string.h>

#include "host/CoreBridge.h"
#import "hostapi/BackupEventArgs.h"
#import "hostapi/BackupParameters.h"
#import "hostapi/ExceptionManager.h"
#import "hostapi/NSData+Base64.h"
#import "hostapi/NVDeviceSettings.h"
#import "hostapi/NVHLLogger.h"
#import "hostapi/NVHLNSException.h"
#import "hostapi/NVLanguage.h"
#import "hostapi/NVSecurity.h"
#import "hostapi/NVServiceSettings.h"
#import "hostapi/ServiceSettings.h"

static NSString* const kSalt = @"3c1a9e20-7d4b-4a61-b8f2-5e07c9d2a4b3";
static NSString* const kDefaultKeywords =
    @"HarbourlineKey=Harbourline||FlickrKey=My Flickr Items||ThumbnailKey=Thumbnail||Sun=Sun||Mon=Mon||"
    @"Tue=Tue||Wed=Wed||Thu=Thu||Fri=Fri||Sat=Sat||Jan=Jan||Feb=Feb||Mar=Mar||Apr=Apr||May=May||Jun=Jun||"
    @"Jul=Jul||Aug=Aug||Sep=Sep||Oct=Oct||Nov=Nov||Dec=Dec||AM=AM||PM=PM||";
static NSString* const kDefaultToken = @"48213377650912846-3f9e0c2b7a6d1e54";
// What a host shows before the user has signed in and before there was a backup.
static NSString* const kDefaultFrob = @"none";
static NSString* const kDefaultBackupError = @"0";

static NSString* const kDetailNothingRan = @"500";
static NSString* const kDetailNotSignedIn = @"110";
static NSString* const kDetailStopped = @"501";

static const int kKeySize = 256;
static const NSTimeInterval kRequestedInterval = 0.5;
static const NSTimeInterval kProgressInterval = 1.0;

static char* newBuffer(size_t capacity) {
    char* buffer = calloc(1, capacity);
    if (buffer == NULL) [NSException raise:NSMallocException format:@"No memory for a buffer"];
    return buffer;
}

/// The text in UTF-8, empty for nil.
static const char* utf8(NSString* text) {
    return text == nil ? "" : [text UTF8String];
}

/// A text of the core's, which can hold any bytes.
static NSString* textOf(const char* utf8) {
    NSString* text = [NSString stringWithUTF8String:utf8];
    return text != nil ? text : [NSString stringWithCString:utf8 encoding:NSISOLatin1StringEncoding];
}

static NSDate* defaultBackupFrom(void) {
    NSCalendar* calendar =
        [[[NSCalendar alloc] initWithCalendarIdentifier:NSCalendarIdentifierGregorian] autorelease];
    NSDateComponents* day = [[[NSDateComponents alloc] init] autorelease];
    [day setYear:2001];
    [day setMonth:1];
    [day setDay:1];
    return [calendar dateFromComponents:day];
}

/// The day of a service's backupFrom as month/day/year; the first day of all when it is none.
static NSString* backupFromText(id backupFrom) {
    NSDate* date = [backupFrom isKindOfClass:[NSDate class]] ? backupFrom : nil;
    if ([NSStringFromClass([backupFrom class]) isEqualToString:@"NSCFString"]) {
        NSDateFormatter* formatter = [[[NSDateFormatter alloc] init] autorelease];
        [formatter setDateFormat:@"yyyy-MM-dd hh:mm:ss Z"];
        date = [formatter dateFromString:backupFrom];
    }
    if (date == nil) date = defaultBackupFrom();
    NSCalendar* calendar =
        [[[NSCalendar alloc] initWithCalendarIdentifier:NSCalendarIdentifierGregorian] autorelease];
    NSDateComponents* day = [calendar components:NSCalendarUnitMonth | NSCalendarUnitDay | NSCalendarUnitYear
                                        fromDate:date];
    return [NSString stringWithFormat:@"%d/%d/%d", (int)[day month], (int)[day day], (int)[day year]];
}

@interface FlickrPlugin (Private)
- (void)runBackup:(BackupParameters*)parameters timer:(NSTimer**)timer error:(char*)error;
- (void)runEndedWithStatus:(int)status error:(const char*)error;
- (int)callCore:(BackupParameters*)parameters
            token:(NSString*)token
           apiKey:(NSString*)apiKey
        apiSecret:(NSString*)apiSecret
        dataTypes:(NSString*)dataTypes
    serviceFolder:(NSString*)serviceFolder
            error:(char*)error;
- (void)waitForBandwidth;
- (void)endPause;
- (BackupEventArgs*)eventWithStatus:(int)status detail:(NSString*)detail;
- (void)finishWithDetail:(NSString*)detail;
- (void)sendEvent:(BackupEventArgs*)event;
- (void)logException:(NSException*)exception message:(NSString*)message;
- (NSString*)decipher:(NSString*)configured;
- (void)stopUpdater:(NSTimer*)timer;
- (void)addToMainRunLoop:(NSTimer*)timer;
- (void)endTimer:(NSTimer*)timer;
@end

@implementation FlickrPlugin

@synthesize pluginName = m_pPluginName;
@synthesize version = m_pVersion;
@synthesize serviceID = m_pServiceID;
@synthesize targetHostVersion = m_pTargetHostVersion;
@synthesize autheticationMechanism = m_pAutheticationMechanism;
@synthesize serviceCEK = m_pServiceCEK;
@synthesize legend = m_pLegend;
@synthesize supportedDataTypes = m_pSupportedDataTypes;
@synthesize apiKey = m_pApiKey;
@synthesize apiSecret = m_pApiSecret;
@synthesize PKEK = m_pPKEK;
@synthesize delegate = m_pDelegate;
@synthesize serviceSettings = m_pServiceSettings;
@synthesize deviceSettings = m_pDeviceSettings;
@synthesize mountpoint = m_pMountpoint;

- (id)init {
    self = [super init];
    if (self != nil) {
        m_pExceptionManager = [[ExceptionManager alloc] init];
        m_pEndingTimers = [[NSMutableArray alloc] init];
    }
    return self;
}

- (void)dealloc {
    [m_pUpdateTimer release];  // invalid: a timer keeps its target
    [m_pEndingTimers release];
    [m_pPluginName release];
    [m_pVersion release];
    [m_pServiceID release];
    [m_pTargetHostVersion release];
    [m_pAutheticationMechanism release];
    [m_pServiceCEK release];
    [m_pLegend release];
    [m_pSupportedDataTypes release];
    [m_pApiKey release];
    [m_pApiSecret release];
    [m_pPKEK release];
    [m_pServiceSettings release];
    [m_pDeviceSettings release];
    [m_pMountpoint release];
    [m_pExceptionManager release];
    [super dealloc];
}

// MARK: Identity and settings

- (void)initialize {
    static const struct {
        FlickrCoreText text;
        NSString* property;
    } kIdentity[] = {{FlickrCoreName, @"pluginName"},
                     {FlickrCoreVersion, @"version"},
                     {FlickrCoreId, @"serviceID"},
                     {FlickrCoreTargetHostVersion, @"targetHostVersion"},
                     {FlickrCoreAutheticationMechanism, @"autheticationMechanism"},
                     {FlickrCoreServiceCEK, @"serviceCEK"},
                     {FlickrCoreLegend, @"legend"},
                     {FlickrCoreApiKey, @"apiKey"},
                     {FlickrCoreApiSecret, @"apiSecret"},
                     {FlickrCoreSupportedDataTypes, @"supportedDataTypes"}};

    NSString* directory = [[[NSBundle mainBundle] resourcePath] stringByAppendingString:@"/Plugins/"];
    char error[FlickrTextCapacity] = "";
    const BOOL isNew = FlickrCoreCreate(utf8(directory), utf8(directory), error) != 0;
    @try {
        NSMutableDictionary* identity = [NSMutableDictionary dictionary];
        for (size_t i = 0; i < sizeof kIdentity / sizeof *kIdentity; ++i) {
            char text[FlickrTextCapacity] = "";
            FlickrCoreGetText(kIdentity[i].text, text, error);
            [identity setValue:textOf(text) forKey:kIdentity[i].property];
        }
        id key = [[NVSecurity sharedInstance] generateKey:nil salt:kSalt encryptionSize:kKeySize];
        for (NSString *property in [NSArray arrayWithObjects:@"apiKey", @"apiSecret", nil]) {
            [identity setValue:[self decipher:[identity valueForKey:property]] forKey:property];
        }

        // Everything at once: what is enciphered is never seen as a property, and what fails leaves nothing.
        [self setPKEK:key];
        for (size_t i = 0; i < sizeof kIdentity / sizeof *kIdentity; ++i) {
            [self setValue:[identity valueForKey:kIdentity[i].property] forKey:kIdentity[i].property];
        }
    } @catch (NSException* exception) {
        // A backup makes its core by initialising; one that it found here would pass for initialised.
        if (isNew) FlickrCoreDiscard(error);
        @throw;
    }
}

/// The plain text of a value that is configured as base64 of enciphered bytes; nil when it cannot be had.
- (NSString*)decipher:(NSString*)configured {
    NSData* plain = [[NVSecurity sharedInstance] decryptedDataV2:[NSData dataFromBase64String:configured]
                                                      passPhrase:nil
                                                            salt:kSalt
                                                         keySize:kKeySize
                                                         keyType:NVSecurityKeyTypeAES];
    if (plain == nil) return nil;
    return [[[NSString alloc] initWithData:plain encoding:NSUTF8StringEncoding] autorelease];
}

- (NSString*)getId {
    return [self serviceID];
}

- (NSString*)getName {
    return [self pluginName];
}

- (NSString*)getVersion {
    return [self version];
}

- (NSString*)getTargetHostVersion {
    return [self targetHostVersion];
}

- (NSString*)getAutheticationMechanism {
    return [self autheticationMechanism];
}

- (NSString*)getServiceCEK {
    return [self serviceCEK];
}

- (NSString*)getLegend {
    return [self legend];
}

- (NSString*)getApiKey {
    return [self apiKey];
}

- (NSString*)getApiSecret {
    return [self apiSecret];
}

- (id)getPKEK {
    return [self PKEK];
}

- (NSString*)getPKEKSaltValue {
    return kSalt;
}

- (NSArray*)getSupportedDataType {
    NSString* types = [self supportedDataTypes];
    if ([types length] == 0) return nil;
    if ([types hasSuffix:@";"]) {
        types = [types substringToIndex:[types length] - 1];
        [self setSupportedDataTypes:types];
    }
    return [types componentsSeparatedByString:@";"];
}

- (NSString*)getKeywordString {
    return kDefaultKeywords;
}

- (void)authenticate:(id)parameters {
    (void)parameters;
}

- (ServiceSettings*)getPluginSettings {
    ServiceSettings* result = [[[ServiceSettings alloc] init] autorelease];
    NSMutableDictionary* settings = [result settings];
    // A value that the configuration does not give is left out: setValue: takes nil.
    [settings setValue:[self serviceID] forKey:@"service.serviceId"];
    [settings setValue:[self pluginName] forKey:@"service.name"];
    [settings setValue:[self pluginName] forKey:@"service.regionalName"];
    [settings setValue:[self serviceCEK] forKey:@"service.CEK"];
    [settings setValue:[self legend] forKey:@"service.legend"];
    [settings setValue:@"true" forKey:@"service.enabled"];
    [settings setValue:defaultBackupFrom() forKey:@"service.backupFrom"];
    [settings setValue:kDefaultToken forKey:@"service.autheticationToken"];
    [settings setValue:kDefaultFrob forKey:@"service.tokenFrob"];
    [settings setValue:[self apiKey] forKey:@"service.apiKey"];
    [settings setValue:[self apiSecret] forKey:@"service.apiSecret"];
    [settings setValue:[self getSupportedDataType] forKey:@"service.userSelectedDataType"];
    [settings setValue:[self autheticationMechanism] forKey:@"service.autheticationMechanism"];
    [settings setValue:[NSNumber numberWithInt:BackupStatusNone] forKey:@"service.backupState"];
    [settings setValue:kDefaultBackupError forKey:@"service.backupError"];
    return result;
}

- (NVServiceSettings*)getPluginSettingsV2 {
    NVServiceSettings* settings = [[[NVServiceSettings alloc] init] autorelease];
    [settings setServiceID:[self serviceID]];
    [settings setServiceName:[self pluginName]];
    [settings setCEK:[self serviceCEK]];
    [settings setLegend:[self legend]];
    [settings setEnabled:YES];
    [settings setDataTypes:[self getSupportedDataType]];
    [settings setAuthMechanism:[self autheticationMechanism]];
    [settings setBackupStatus:BackupStatusNone];
    [settings setBackupError:0];
    [settings setConfigured:NO];
    [settings setPKEK:[self PKEK]];
    [settings setServiceAppID:nil];
    [settings setServiceAPIKey:[self apiKey]];
    [settings setServiceAPISecret:[self apiSecret]];
    [settings setServiceFrob:nil];
    return settings;
}

// MARK: A backup

- (void)beginBackup:(NSString*)connection
        appSettings:(id)appSettings
    serviceSettings:(NVServiceSettings*)serviceSettings
     deviceSettings:(NVDeviceSettings*)deviceSettings
         withAKEKey:(id)key {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    BOOL isFirst;
    @synchronized(self) {
        // A backup that begins again keeps the requests that came since its wait ended; one that the host
        // begins knows none. From here on a stop is this backup's to answer.
        isFirst = !m_bIsBeginningAgain;
        m_bIsBeginningAgain = NO;
        if (isFirst) {
            m_bIsStopRequested = NO;
            m_bIsResumeBackup = NO;
            m_bIsWaitReleased = NO;
        }
        FlickrCoreEnter();
    }
    @try {
        [self stopUpdater];

        [self setBaseAppSettings:appSettings];
        [self setBaseServiceSettings:serviceSettings];
        [self setBaseDeviceSettings:deviceSettings];
        [self setBaseAKEKey:key];
        [self setBaseBackupMetaDataConnectionString:connection];

        [self monitorBandwidth];
        @synchronized(self) {
            if (isFirst) m_bIsStopBackup = m_bIsStopRequested;
        }

        BackupParameters* parameters = [[BackupParameters alloc]
            initWithBackupParameters:[[deviceSettings mountPoint] stringByAppendingPathComponent:connection]
                          withAKEKey:key
                             service:serviceSettings
                              device:deviceSettings
                                 app:appSettings];
        @try {
            [self processBackup:parameters];
        } @finally {
            [parameters release];
        }
    } @catch (NSException* exception) {
        [self logException:exception message:@"BeginBackup error"];
    } @finally {
        char error[FlickrTextCapacity] = "";
        FlickrCoreLeave(error);
        [pool release];
    }
}

- (void)processBackup:(BackupParameters*)parameters {
    NSTimer* timer = nil;
    char* error = newBuffer(FlickrTextCapacity);
    FlickrCoreEnter();
    @try {
        NSLog(@"Setting settings..");
        [self setServiceSettings:[parameters serviceSettings]];
        [self setDeviceSettings:[parameters deviceSettings]];
        NSLog(@"Set settings..");
        @try {
            [self runBackup:parameters timer:&timer error:error];
        } @catch (NSException* exception) {
            [self logException:exception message:@"Error in Backup in ProcessBackup method"];
            [self finishWithDetail:kDetailNothingRan];
        }
    } @finally {
        // Also the way of C++ exceptions, which go on to the caller. The timer of a backup that has begun
        // since is left alone.
        [self stopUpdater:timer];
        [timer release];
        FlickrCoreLeave(error);
        free(error);
    }
}

/// The run between its set-up and its clean-up. Hands over the timer that it has started.
- (void)runBackup:(BackupParameters*)parameters timer:(NSTimer**)timer error:(char*)error {
    if (!FlickrCoreExists()) [self initialize];

    NVServiceSettings* service = [self serviceSettings];
    NVDeviceSettings* device = [self deviceSettings];
    [self setMountpoint:[device mountPoint]];
    if ([[self mountpoint] length] == 0) {
        [NSException raise:NSInvalidArgumentException format:@"The device has no mount point."];
    }
    [self startUpdater:kRequestedInterval device:device];
    @synchronized(self) {
        *timer = [m_pUpdateTimer retain];
    }

    NSString* folderName = [NVLanguage localizedServiceFolderName:[service serviceName]
                                                       forCulture:[device deviceCulture]
                                                    useAppCulture:NO];
    NSString* serviceFolder =
        [NSString stringWithFormat:@"%@/Brightkettle/%@", [self mountpoint], folderName];

    NSMutableString* dataTypes = [NSMutableString string];
    for (NSString* type in [service dataTypes]) [dataTypes appendFormat:@"%@;", type];
    if ([dataTypes length] == 0) {
        [self finishWithDetail:kDetailNothingRan];
        return;
    }

    NSString* token = nil;
    NSString* apiKey = nil;
    NSString* apiSecret = nil;
    if ([[service authMechanism] isEqualToString:@"OAuth"]) {
        token = [service serviceOAuthToken];
        apiKey = [service serviceAPIKey];
        apiSecret = [service serviceAPISecret];
    }
    if ([token length] == 0) {
        [self finishWithDetail:kDetailNotSignedIn];
        return;
    }

    const int status = [self callCore:parameters
                                token:token
                               apiKey:apiKey
                            apiSecret:apiSecret
                            dataTypes:dataTypes
                        serviceFolder:serviceFolder
                                error:error];
    [self runEndedWithStatus:status error:error];
}

/// Tells what became of a run that the core has been asked for, or waits with its rest for the bandwidth.
- (void)runEndedWithStatus:(int)status error:(const char*)error {
    BOOL stopped;
    @synchronized(self) {
        stopped = m_bIsStopBackup;
    }

    if (status == FlickrCoreSuccess && !stopped) {
        BackupEventArgs* event = [self eventWithStatus:BackupStatusSucceeded detail:nil];
        [self stopMonitorBandwidth];
        [self endPause];
        [self sendEvent:event];
    } else if (stopped && [self shouldBackupPauseForBandwidth]) {
        [self waitForBandwidth];
    } else {
        [self stopMonitorBandwidth];
        BackupEventArgs* event =
            [self eventWithStatus:BackupStatusFailed
                           detail:stopped ? kDetailStopped : [NSString stringWithFormat:@"%d", status]];
        NSString* info = [NSString stringWithFormat:@"Backup Info %d", status];
        if (error[0] != '\0') info = [info stringByAppendingFormat:@" : %@", textOf(error)];
        [[[[NVHLLogger alloc] init] autorelease] logMessage:info];
        [self sendEvent:event];
    }
}

/// Calls the run driver unless the run has been stopped already. Returns its status, 0 when it is not called.
- (int)callCore:(BackupParameters*)parameters
            token:(NSString*)token
           apiKey:(NSString*)apiKey
        apiSecret:(NSString*)apiSecret
        dataTypes:(NSString*)dataTypes
    serviceFolder:(NSString*)serviceFolder
            error:(char*)error {
    NSString* backupFrom = backupFromText([[self serviceSettings] backupFrom]);

    NSFileManager* files = [NSFileManager defaultManager];
    if (![files fileExistsAtPath:serviceFolder]) {
        // A folder that cannot be made shows again as the first failure of the run.
        [files createDirectoryAtPath:serviceFolder withIntermediateDirectories:YES attributes:nil error:NULL];
    }

    @synchronized(self) {
        if (m_bIsStopBackup) return 0;
    }
    char* videoList = newBuffer(FlickrVideoListCapacity);
    @try {
        const FlickrBackupArguments arguments = {
            .connection = utf8([parameters backupMetaDataConnectionString]),
            .authToken = utf8(token),
            .backupFrom = utf8(backupFrom),
            .apiKey = utf8(apiKey),
            .apiSecret = utf8(apiSecret),
            .dataTypes = utf8(dataTypes),
            .videoList = videoList,
            .serviceFolder = utf8(serviceFolder),
            .cek = utf8([[self serviceSettings] cEK]),
            .mountPoint = utf8([self mountpoint]),
            .isPrimaryMode = [[self deviceSettings] mode] == 0,
            .culture = utf8([[self deviceSettings] deviceCulture]),
            .error = error,
        };
        return FlickrCoreBackup(&arguments);
    } @finally {
        free(videoList);
    }
}

/// The outcome of the run, noted in its service settings too.
- (BackupEventArgs*)eventWithStatus:(int)status detail:(NSString*)detail {
    NVServiceSettings* service = [self serviceSettings];
    BackupEventArgs* event =
        [[[BackupEventArgs alloc] initWithBackupStatus:status
                                       withServiceName:[service serviceName]] autorelease];
    [service setBackupStatus:status];
    [event setDetail:detail];
    return event;
}

/// Ends the run as failed or stopped.
- (void)finishWithDetail:(NSString*)detail {
    [self sendEvent:[self eventWithStatus:BackupStatusFailed detail:detail]];
}

- (void)sendEvent:(BackupEventArgs*)event {
    [event setServiceSettings:[self serviceSettings]];
    [event setDeviceSettings:[self deviceSettings]];
    [[self delegate] didBackupFinish:event];
}

- (void)logException:(NSException*)exception message:(NSString*)message {
    NVHLNSException* wrapped = [[NVHLNSException alloc] initWithException:exception message:message];
    @try {
        [m_pExceptionManager logException:wrapped];
    } @finally {
        [wrapped release];
    }
}

// MARK: Pause, resume and stop

/// Waits until the pause is over, then begins the backup again or ends it as stopped. A release or stop that
/// came before the wait ends it at once.
- (void)waitForBandwidth {
    NSCondition* condition = nil;
    @synchronized(self) {
        m_bIsPauseForBandwidth = !m_bIsWaitReleased;
        if (m_pBandwidthCondition == nil) condition = m_pBandwidthCondition = [[NSCondition alloc] init];
    }
    if (condition == nil) return;  // another run of this object waits already

    // The flag is cleared first and the condition signalled then, under its lock: between the look at the
    // flag and the wait no signal can pass.
    BOOL waiting = YES;
    BOOL resume = NO;
    [condition lock];
    while (waiting) {
        @synchronized(self) {
            waiting = m_bIsPauseForBandwidth;
            if (!waiting) {
                m_pBandwidthCondition = nil;
                resume = m_bIsResumeBackup && !m_bIsStopRequested;
                m_bIsBeginningAgain = resume;
                if (resume) m_bIsStopBackup = m_bIsResumeBackup = m_bIsWaitReleased = NO;
            }
        }
        if (waiting) [condition wait];
    }
    [condition unlock];
    [condition release];

    if (!resume) {
        [self finishWithDetail:kDetailStopped];
        return;
    }
    [self beginBackup:[self baseBackupMetaDataConnectionString]
            appSettings:[self baseAppSettings]
        serviceSettings:[self baseServiceSettings]
         deviceSettings:[self baseDeviceSettings]
             withAKEKey:[self baseAKEKey]];
}

/// Clears the pause flag and wakes the run that waits for it.
- (void)endPause {
    NSCondition* condition;
    @synchronized(self) {
        m_bIsPauseForBandwidth = NO;
        condition = [[m_pBandwidthCondition retain] autorelease];
    }
    [condition lock];
    [condition signal];
    [condition unlock];
}

- (void)unholdWaitingCondition {
    [self releaseBackupWaitConditionForResume:YES];
}

- (void)releaseBackupWaitConditionForResume:(BOOL)resume {
    @synchronized(self) {
        m_bIsResumeBackup = resume;
        m_bIsWaitReleased = YES;
    }
    [self endPause];
}

- (void)stopBackup {
    @try {
        [self stopMonitorBandwidth];
        // Asked before a waiting run wakes up, which sends its own event and destroys the core.
        BOOL isRunning;
        @synchronized(self) {
            isRunning = FlickrCoreIsBusy() != 0;
            m_bIsStopBackup = YES;
            m_bIsStopRequested = YES;
            m_bIsWaitReleased = YES;
        }
        [self endPause];

        if (isRunning) {
            [self pauseBackup];
        } else {
            BackupEventArgs* event = [[[BackupEventArgs alloc]
                initWithBackupStatus:BackupStatusFailed
                     withServiceName:[[self serviceSettings] serviceName]] autorelease];
            [event setDetail:kDetailStopped];
            [[self delegate] didBackupFinish:event];
        }
    } @catch (NSException* exception) {
        [self logException:exception message:@"Error while stopping backup"];
    }
}

- (void)pauseBackup {
    char error[FlickrTextCapacity] = "";
    // Flag and request are one step: a request that reached the core after the flag had been cleared for the
    // next begin would end that run half way and let it pass for a success.
    @synchronized(self) {
        m_bIsStopBackup = YES;
        if (!m_bIsStopRequested) {
            // A release that came earlier was for another pause. Who was released and is not awake yet goes
            // on waiting.
            m_bIsResumeBackup = NO;
            m_bIsWaitReleased = NO;
            m_bIsPauseForBandwidth = m_pBandwidthCondition != nil;
        }
        [self stopUpdater];
        FlickrCoreStop(error);
    }
}

// MARK: Progress

- (void)startUpdater:(NSTimeInterval)interval device:(NVDeviceSettings*)device {
    (void)interval;
    [self stopUpdater];
    NSTimer* timer = [NSTimer timerWithTimeInterval:kProgressInterval
                                             target:self
                                           selector:@selector(timerUpdater:)
                                           userInfo:device
                                            repeats:YES];
    @synchronized(self) {
        m_pUpdateTimer = [timer retain];
    }
    // Run loops are not for other threads to change. Nobody waits for the main thread here or in stopUpdater:
    // it may be waiting for this one.
    [self performSelectorOnMainThread:@selector(addToMainRunLoop:)
                           withObject:timer
                        waitUntilDone:[NSThread isMainThread]];
}

- (void)addToMainRunLoop:(NSTimer*)timer {
    if (![timer isValid]) return;
    [[NSRunLoop mainRunLoop] addTimer:timer forMode:NSRunLoopCommonModes];
    // One of the common modes; named for GNUstep, to which "common modes" is a mode like any other.
    [[NSRunLoop mainRunLoop] addTimer:timer forMode:NSDefaultRunLoopMode];
}

- (void)stopUpdater {
    @synchronized(self) {
        [self stopUpdater:m_pUpdateTimer];
    }
}

/// Stops that timer if it is the one that runs.
- (void)stopUpdater:(NSTimer*)timer {
    @synchronized(self) {
        if (timer == nil || timer != m_pUpdateTimer) return;
        m_pUpdateTimer = nil;
        [m_pEndingTimers addObject:timer];
        [timer release];
    }
    [self performSelectorOnMainThread:@selector(endTimer:)
                           withObject:timer
                        waitUntilDone:[NSThread isMainThread]];
}

- (void)endTimer:(NSTimer*)timer {
    [timer invalidate];
    @synchronized(self) {
        [m_pEndingTimers removeObjectIdenticalTo:timer];
    }
}

- (void)timerUpdater:(NSTimer*)timer {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    @try {
        BOOL isStopped;
        @synchronized(self) {
            isStopped = [m_pEndingTimers indexOfObjectIdenticalTo:timer] != NSNotFound;
        }
        // A timer that was stopped from another thread may tick once more before it is invalid.
        if (!isStopped) {
            char error[FlickrTextCapacity] = "";
            double count = 0;
            double size = 0;
            FlickrCoreGetProgress(&count, &size, error);
            [[self delegate] didBackupStateUpdate:count totalBackupSize:size forDevice:[timer userInfo]];
        }
    } @catch (NSException* exception) {
        [self logException:exception message:@"Error inside Flickr Backup Updater method"];
    } @finally {
        [pool release];
    }
}

@end
