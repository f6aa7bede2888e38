/* What the floor client does by hand, done through the library classes that the plug-in is bound to: the
 * network library's session for every request, the SAX parser for every answer, a database session for every
 * look-up. The same client built over these shows what the classes cost by themselves. */

#ifndef BENCH_LIBRARY_CALLS_H
#define BENCH_LIBRARY_CALLS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Fetches the address over a session of its own and hands its body to sink in blocks of 8 KiB. Ends the
/// process when that fails.
void libraryFetch(const char* url, void (*sink)(void* context, const char* data, size_t size), void* context);

/// Reads the document with handlers that do nothing.
void libraryRead(const char* document, size_t size);

/// Opens the database as the host does, with a connection that stays open.
void libraryOpen(const char* database);

/// Looks the item up in the database once, or twice as for one that is known, each time in a session of its
/// own. Nothing without an open database.
void libraryLookUp(const char* itemId, int times);

#ifdef __cplusplus
}
#endif

#endif
