// The object that the host loads: the Flickr plug-in as the host's IPlugin.
//
// It hands the host the plug-in's identity and default settings, and performs backups:
//
//   beginBackup     on a thread of the host's; blocks it until the backup has ended
//   timerUpdater:   on the main thread, each second of a backup: progress for the delegate
//   stopBackup, pauseBackup, releaseBackupWaitConditionForResume:, unholdWaitingCondition
//                   from any other thread
//
// A backup that was paused for bandwidth waits on its own thread, and begins again there when it is released.
//
// Flags, condition and timer are only touched under @synchronized(self). While that lock is held nothing is
// waited for, and nothing is called but the core's stop request, which only sets a flag.

#ifndef HOST_FLICKRPLUGIN_H
#define HOST_FLICKRPLUGIN_H

#import <Foundation/Foundation.h>

#import "hostapi/IPlugin.h"
#import "hostapi/PluginBase.h"

@class BackupParameters;
@class ExceptionManager;

@interface FlickrPlugin : PluginBase <IPlugin> {
@private
    NSString* m_pPluginName;
    NSString* m_pVersion;
    NSString* m_pServiceID;
    NSString* m_pTargetHostVersion;
    NSString* m_pAutheticationMechanism;
    NSString* m_pServiceCEK;
    NSString* m_pLegend;
    NSString* m_pSupportedDataTypes;
    NSString* m_pApiKey;
    NSString* m_pApiSecret;
    id m_pPKEK;

    id<PluginDelegate> m_pDelegate;
    NVServiceSettings* m_pServiceSettings;
    NVDeviceSettings* m_pDeviceSettings;
    NSString* m_pMountpoint;
    ExceptionManager* m_pExceptionManager;

    NSTimer* m_pUpdateTimer;
    NSMutableArray* m_pEndingTimers;     // stopped, and not invalid yet
    NSCondition* m_pBandwidthCondition;  // only while a run waits for bandwidth
    BOOL m_bIsStopBackup;                // the current run is to wind down
    BOOL m_bIsPauseForBandwidth;         // a run waits for bandwidth
    BOOL m_bIsResumeBackup;              // a run that waits, or is about to, is to begin again
    BOOL m_bIsWaitReleased;              // the wait has been ended, maybe before it began
    BOOL m_bIsStopRequested;             // by stopBackup: no release brings the backup back
    BOOL m_bIsBeginningAgain;            // from the end of a wait to the begin that it leads to: a stop or
                                         // pause of that moment counts
}

// Filled by initialize.
@property(copy) NSString* pluginName;
@property(copy) NSString* version;
@property(copy) NSString* serviceID;
@property(copy) NSString* targetHostVersion;
@property(copy) NSString* autheticationMechanism;
@property(copy) NSString* serviceCEK;
@property(copy) NSString* legend;
/// "Images;Videos;"
@property(copy) NSString* supportedDataTypes;
@property(copy) NSString* apiKey;
@property(copy) NSString* apiSecret;
@property(retain) id PKEK;

@property(assign) id<PluginDelegate> delegate;

// What the current run works with.
@property(retain) NVServiceSettings* serviceSettings;
@property(retain) NVDeviceSettings* deviceSettings;
@property(copy) NSString* mountpoint;

/// One run, on the calling thread. beginBackup's second half.
- (void)processBackup:(BackupParameters*)parameters;

/// Starts to report progress for the device, in place of a timer that runs already. Each second, whatever
/// interval says.
- (void)startUpdater:(NSTimeInterval)interval device:(NVDeviceSettings*)device;
- (void)stopUpdater;
/// One report, for the device that is the timer's user info. Also for a timer of the host's own.
- (void)timerUpdater:(NSTimer*)timer;

@end

#endif
