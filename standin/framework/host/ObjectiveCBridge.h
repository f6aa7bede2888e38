// Parts of the framework for its Objective-C classes: C linkage over the C++ that does the work. Nothing here
// throws. Texts are UTF-8 and never null; results that are texts are the caller's to free().

#ifndef STANDIN_FRAMEWORK_HOST_OBJECTIVECBRIDGE_H
#define STANDIN_FRAMEWORK_HOST_OBJECTIVECBRIDGE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { NVKeyLength = 32 };

/// The service's folder below the application's folder in a culture.
char* NVServiceFolderName(const char* culture);

/// Derives a key of NVKeyLength bytes. Returns whether it could.
int NVDeriveKey(const char* material, size_t length, const char* salt, unsigned char* key);

/// The plain text of length sealed bytes; null when they were not sealed with that pass phrase and salt.
char* NVDecrypt(const char* passPhrase, const char* salt, const void* sealed, size_t length,
                size_t* plainLength);

/// Writes a line to the developer log, as a failure (level 0) or as information (level 3).
void NVWriteLog(int isFailure, const char* message, const char* sourceFile, int line);

/// Whether the current run has been told to stop, for a pause or for good.
int NVIsBackupStopped(void);

/// Items and bytes that the current run has put on the device.
void NVGetTotals(double* items, double* bytes);

#ifdef __cplusplus
}
#endif

#endif
