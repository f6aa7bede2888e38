// What a host can ask of a backup plug-in.

#ifndef HOSTAPI_IPLUGIN_H
#define HOSTAPI_IPLUGIN_H

#import <Foundation/Foundation.h>

#import "hostapi/PluginDelegate.h"

@class NVDeviceSettings;
@class NVServiceSettings;
@class ServiceSettings;

/// The messages of a plug-in object. A host makes the object, sends initialize, reads what it wants to know,
/// sets the delegate and begins backups.
@protocol IPlugin <NSObject>

/// Makes the plug-in's core and fills the identity. To be sent before anything below is read. Every finished
/// backup destroys the core; the next one makes its own.
- (void)initialize;

- (NSString*)getId;
- (NSString*)getName;
- (NSString*)getVersion;
- (NSString*)getTargetHostVersion;
/// How users sign in to the service: "OAuth".
- (NSString*)getAutheticationMechanism;
/// The service's content encryption key text.
- (NSString*)getServiceCEK;
/// The words that a host shows for the service.
- (NSString*)getLegend;
/// Key and secret of the service's interface, deciphered.
- (NSString*)getApiKey;
- (NSString*)getApiSecret;
/// The key that NVSecurity made for the plug-in, and the salt that it was made with.
- (id)getPKEK;
- (NSString*)getPKEKSaltValue;
/// The data types that the plug-in can back up, as texts; nil when there is none.
- (NSArray*)getSupportedDataType;
/// The words that the plug-in uses, untranslated: "key=value" pairs, each followed by "||".
- (NSString*)getKeywordString;

/// Nothing to do: signing in is the host's business.
- (void)authenticate:(id)parameters;

/// The settings with which a host starts to configure the service, as a dictionary and as an object.
- (ServiceSettings*)getPluginSettings;
- (NVServiceSettings*)getPluginSettingsV2;

- (id<PluginDelegate>)delegate;
- (void)setDelegate:(id<PluginDelegate>)delegate;

/// Backs up now, on the calling thread, which must not be the main thread: it is blocked for the whole run,
/// pauses included. The outcome goes to the delegate. One backup at a time in a process.
///
/// connection: path of the metadata database, relative to the device's mount point. appSettings and key are
/// the host's; the plug-in keeps them and hands them on.
- (void)beginBackup:(NSString*)connection
        appSettings:(id)appSettings
    serviceSettings:(NVServiceSettings*)serviceSettings
     deviceSettings:(NVDeviceSettings*)deviceSettings
         withAKEKey:(id)key;

// From any thread but that of the run:

/// Ends the run, also one that waits for bandwidth, with detail "501". Without a core the delegate gets that
/// event at once.
- (void)stopBackup;

/// Makes the run wind down. It then waits for bandwidth when shouldBackupPauseForBandwidth answers YES, and
/// ends as stopped otherwise.
- (void)pauseBackup;

/// Ends a wait for bandwidth, and begins the backup again.
- (void)unholdWaitingCondition;

/// Ends a wait for bandwidth: with YES the backup begins again, with NO it ends with detail "501".
- (void)releaseBackupWaitConditionForResume:(BOOL)resume;

@end

#endif
