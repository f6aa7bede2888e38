// The floor under a run's time: what is left of a backup when everything is taken away but its requests and
// its files.
//
// A client on plain sockets that makes the requests of a run in their order, one at a time over a connection
// each, finds what it needs by scanning the answers' text, and puts the files of each item on the disk in the
// steps and with the flushes of the host's file service: the media file, its record and its thumbnail
// together, then their folders together, and the folder's record. It knows no earlier run, no names, no log
// and no database, and stops at the first failure.
//
// Every answer has to announce its length.
//
// Built with OVER_LIBRARIES it does the same through library_calls.h, and looks its items up in a database.

#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef OVER_LIBRARIES
#include "bench/library_calls.h"
#endif

enum { kItemsPerPage = 500, kBlockSize = 65536, kIdSize = 64, kAddressSize = 1024 };

static const char kExtras[] =
    "date_upload, last_update, date_taken, media, url_m, url_o, url_t, tags, description";
static const char kExtrasEncoded[] =
    "date_upload%2C+last_update%2C+date_taken%2C+media%2C+url_m%2C+url_o%2C+url_t%2C+tags%2C+description";
static const char kNoSet[] = "Anonymous";

struct Text {
    char* data;
    size_t size, capacity;
};

struct Item {
    char id[kIdSize];
    char media[kAddressSize], thumbnail[kAddressSize];
};

static const char *dataUrl, *apiKey, *apiSecret, *token;
static bool listOnly;
static FILE* notes;  // every address that was fetched, when that is wanted

static void fail(const char* what, const char* which) {
    fprintf(stderr, "floor_client: %s %s: %s\n", what, which, errno ? strerror(errno) : "not as expected");
    exit(1);
}

/// snprintf() into an array; text that does not fit ends the run.
#define PRINT(array, ...) print(array, sizeof(array), __VA_ARGS__)

__attribute__((format(printf, 3, 4))) static int print(char* out, size_t capacity, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(out, capacity, format, arguments);
    va_end(arguments);
    errno = 0;
    if (length >= (int)capacity) fail("room for", out);
    return length;
}

static void put(int file, struct Text* text, const char* data, size_t size) {
    if (text) {
        if (text->size + size + 1 > text->capacity) {
            text->capacity = 2 * (text->size + size) + kBlockSize;
            text->data = realloc(text->data, text->capacity);
        }
        memcpy(text->data + text->size, data, size);
        text->size += size;
        text->data[text->size] = '\0';
        return;
    }
    while (size > 0) {
        const ssize_t count = write(file, data, size);
        if (count < 0) fail("write", "a file");
        data += count;
        size -= count;
    }
}

#ifdef OVER_LIBRARIES

struct Target {
    int file;
    struct Text* text;
};

static void putBlock(void* target, const char* data, size_t size) {
    put(((struct Target*)target)->file, ((struct Target*)target)->text, data, size);
}

static void fetch(const char* url, int file, struct Text* text) {
    struct Target target = {file, text};
    if (notes) fprintf(notes, "%s\n", url);
    libraryFetch(url, putBlock, &target);
    if (text) libraryRead(text->data, text->size);
}

#else

static int dial(const char* url, char* host, int* port, int* pathAt) {
    struct sockaddr_in peer = {.sin_family = AF_INET};
    if (sscanf(url, "http://%63[^:/]:%d%n", host, port, pathAt) != 2) fail("address", url);
    inet_pton(AF_INET, host, &peer.sin_addr);
    peer.sin_port = htons(*port);
    const int peerSocket = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(peerSocket, (struct sockaddr*)&peer, sizeof peer) != 0) fail("connect to", url);
    return peerSocket;
}

/// Fetches the address into text, or into the file when there is no text.
static void fetch(const char* url, int file, struct Text* text) {
    char host[kIdSize], request[kAddressSize + 256], block[kBlockSize];
    int port, pathAt;
    if (notes) fprintf(notes, "%s\n", url);
    const int peer = dial(url, host, &port, &pathAt);
    const int length = PRINT(request, "GET %s HTTP/1.1\r\nHost: %s:%d\r\nConnection: Close\r\n\r\n",
                             url + pathAt, host, port);
    if (send(peer, request, length, MSG_NOSIGNAL) != length) fail("send to", url);

    size_t have = 0;
    char* end = NULL;
    while (!end) {
        const ssize_t count = recv(peer, block + have, sizeof block - 1 - have, 0);
        if (count <= 0) fail("header from", url);
        have += count;
        block[have] = '\0';
        end = strstr(block, "\r\n\r\n");
    }
    const char* announced = strcasestr(block, "\r\nContent-Length:");
    if (strncmp(block + strcspn(block, " "), " 200", 4) != 0 || !announced) fail("answer to", url);
    long left = atol(announced + strlen("\r\nContent-Length:"));

    const char* body = end + 4;
    ssize_t count = block + have - body;
    while (count > 0 || left > 0) {
        put(file, text, body, count);
        left -= count;
        if (left <= 0) break;
        body = block;
        count = recv(peer, block, sizeof block, 0);
        if (count <= 0) fail("body from", url);
    }
    close(peer);
}

static void libraryLookUp(const char* itemId, int times) {
    (void)itemId, (void)times;
}

#endif

/// Calls the service: parameters in the order of the query, signed in the order of their names.
static void call(const char* method, const char* setId, const char* photoId, int page, struct Text* answer) {
    char plain[kAddressSize], url[kAddressSize], number[16] = "", signature[33];
    unsigned char digest[EVP_MAX_MD_SIZE];
    if (page) PRINT(number, "%d", page);
    const char* extras = page ? kExtras : "";
#define PAIR(name, value) (*(value) ? (name) : ""), (value)
    const int length = PRINT(plain, "%sapi_key%sauth_token%s%s%smethod%s%s%s%s%s%s%s", apiSecret, apiKey,
                             token, PAIR("extras", extras), method, PAIR("page", number),
                             PAIR("photo_id", photoId), PAIR("photoset_id", setId));
    EVP_Digest(plain, length, digest, NULL, EVP_md5(), NULL);
    for (int i = 0; i < 16; ++i) sprintf(signature + 2 * i, "%02x", digest[i]);
    PRINT(url, "%s?method=%s&api_key=%s%s%s%s%s%s%s&auth_token=%s%s%s&api_sig=%s", dataUrl, method, apiKey,
          PAIR("&photoset_id=", setId), PAIR("&photo_id=", photoId),
          PAIR("&extras=", page ? kExtrasEncoded : ""), token, PAIR("&page=", number), signature);
#undef PAIR
    answer->size = 0;
    fetch(url, -1, answer);
}

/// Copies the attribute of the element that starts at tag; "&amp;" becomes "&". Empty when there is none.
static void attribute(const char* tag, const char* name, char* value, size_t capacity) {
    char pattern[kIdSize];
    PRINT(pattern, " %s=\"", name);
    const char* found = strstr(tag, pattern);
    *value = '\0';
    if (!found || found > strchr(tag, '>')) return;
    const char* from = found + strlen(pattern);
    while (*from != '"' && --capacity > 0) {
        *value++ = *from;
        from += strncmp(from, "&amp;", 5) == 0 ? 5 : 1;
    }
    if (*from != '"') fail("room for the attribute", name);
    *value = '\0';
}

static bool oneOf(const char* label, const char* labels) {
    char pattern[kIdSize];
    PRINT(pattern, "|%s|", label);
    return strstr(labels, pattern) != NULL;
}

/// Asks for the item's renditions and picks its two addresses.
static void findAddresses(struct Item* item, bool video, struct Text* answer) {
    call("flickr.photos.getSizes", "", item->id, 0, answer);
    for (const char* tag = answer->data; (tag = strstr(tag, "<size ")); ++tag) {
        char label[kIdSize], source[kAddressSize];
        attribute(tag, "label", label, sizeof label);
        attribute(tag, "source", source, sizeof source);
        if (!*source) continue;
        if (oneOf(label, "|Thumbnail|")) strcpy(item->thumbnail, source);
        if (oneOf(label, video ? "|Video Player|Site MP4|Mobile MP4|Video Original|"
                               : "|Thumbnail|Medium|Medium 640|Large|Original|")) {
            strcpy(item->media, source);
        }
    }
    if (listOnly && notes) fprintf(notes, "%s\n%s\n", item->media, item->thumbnail);
}

/// Makes a file in the directory, from an address or with the given bytes, under a name that it has until it
/// is whole.
static int makePart(const char* directory, const char* url, const char* bytes) {
    char part[kAddressSize];
    PRINT(part, "%s/.part-1", directory);
    const int file = open(part, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (file < 0) fail("make", part);
    if (url) fetch(url, file, NULL);
    if (bytes) put(file, NULL, bytes, strlen(bytes));
    return file;
}

/// A flush of one of several things that are waited for together.
struct Flush {
    int file;
    int (*call)(int);
    pthread_t thread;
};

static void* flushOne(void* flush) {
    const struct Flush* one = flush;
    return (void*)(intptr_t)one->call(one->file);
}

/// Flushes them all at once and closes them.
static void flushTogether(struct Flush* flushes, int count) {
    for (int i = 1; i < count; ++i) {
        if (pthread_create(&flushes[i].thread, NULL, flushOne, &flushes[i]) != 0) fail("make", "a thread");
    }
    bool failed = flushOne(&flushes[0]) != NULL;
    for (int i = 1; i < count; ++i) {
        void* result = NULL;
        pthread_join(flushes[i].thread, &result);
        failed = failed || result != NULL;
    }
    for (int i = 0; i < count; ++i) failed = close(flushes[i].file) != 0 || failed;
    if (failed) fail("flush", "a file");
}

static void namePart(const char* directory, const char* name) {
    char part[kAddressSize], path[kAddressSize];
    PRINT(part, "%s/.part-1", directory);
    PRINT(path, "%s/%s", directory, name);
    if (rename(part, path) != 0) fail("rename", part);
}

static int openDirectory(const char* directory) {
    const int opened = open(directory, O_RDONLY | O_DIRECTORY);
    if (opened < 0) fail("open", directory);
    return opened;
}

static void storeItem(const struct Item* item, const char* setId, const char* folder) {
    char media[kIdSize], thumbnail[3 * kIdSize], records[kAddressSize], thumbnails[kAddressSize],
        record[kAddressSize], name[kAddressSize];
    PRINT(media, "%.40s.jpg", item->id);
    PRINT(thumbnail, "%s_%s.jpg", item->id, setId);
    PRINT(records, "%s/.records", folder);
    PRINT(thumbnails, "%s/Thumbnail", folder);
    PRINT(record, "<media><ID>%s_%s</ID><FileName>%s</FileName></media>\n", item->id, setId, media);

    struct Flush files[] = {{makePart(folder, item->media, NULL), fsync, 0},
                            {makePart(records, NULL, record), fdatasync, 0},
                            {makePart(thumbnails, item->thumbnail, NULL), fsync, 0}};
    for (int i = 0; i < 3; ++i) sync_file_range(files[i].file, 0, 0, SYNC_FILE_RANGE_WRITE);
    flushTogether(files, 3);
    PRINT(name, "%s.xml", media);
    namePart(records, name);
    namePart(folder, media);
    namePart(thumbnails, thumbnail);
    struct Flush names[] = {{openDirectory(folder), fsync, 0},
                            {openDirectory(records), fsync, 0},
                            {openDirectory(thumbnails), fsync, 0}};
    flushTogether(names, 3);
    if (close(makePart(records, NULL, record)) != 0) fail("close", "a file");
    namePart(records, ".folder.xml");
}

static void lookUp(const char* id, const char* setId, int times) {
    char key[2 * kIdSize];
    PRINT(key, "%s_%s", id, setId);
    libraryLookUp(key, times);
}

static void backUpSet(const char* setId, long items, const char* device) {
    static struct Text page, answer;
    const bool loose = strcmp(setId, kNoSet) == 0;
    const long pages = items <= kItemsPerPage ? 1 : (items + kItemsPerPage - 1) / kItemsPerPage;
    struct Item* listed = NULL;
    size_t count = 0, before = 0, capacity = 0;
    for (int number = 1; loose || number <= pages; ++number, before = count) {
        call(loose ? "flickr.photos.getNotInSet" : "flickr.photosets.getPhotos", loose ? "" : setId, "",
             number, &page);
        for (const char* tag = page.data; (tag = strstr(tag, "<photo ")); ++tag) {
            if (count == capacity) {
                capacity = 2 * capacity + kItemsPerPage;
                listed = realloc(listed, capacity * sizeof *listed);
            }
            struct Item* item = &listed[count++];
            char media[kIdSize];
            memset(item, 0, sizeof *item);
            attribute(tag, "id", item->id, sizeof item->id);
            attribute(tag, "media", media, sizeof media);
            findAddresses(item, strcmp(media, "video") == 0, &answer);
        }
        if (loose && count == before) break;
    }

    for (size_t i = 0; listOnly && i < count; ++i) lookUp(listed[i].id, setId, 2);
    if (!listOnly && count > 0) {
        char folder[kAddressSize], inner[kAddressSize + 16];
        PRINT(folder, loose ? "%s" : "%s/%s", device, setId);
        mkdir(folder, 0755);
        PRINT(inner, "%s/Thumbnail", folder);
        mkdir(inner, 0755);
        PRINT(inner, "%s/.records", folder);
        mkdir(inner, 0755);
        for (size_t i = 0; i < count; ++i) {
            lookUp(listed[i].id, setId, 1);
            storeItem(&listed[i], setId, folder);
        }
    }
    free(listed);
}

int main(int argc, char** argv) {
    if (argc < 6) {
        fputs(
            "usage: floor_client DATA_URL KEY SECRET TOKEN DEVICE [--list-only] [--addresses FILE]\n"
            "                    [--database FILE]\n"
            "Makes the requests of a backup and puts its files below DEVICE. --list-only: the requests of a\n"
            "run that finds nothing new. --addresses: notes every address fetched, and every one that\n"
            "--list-only leaves out, a line each. --database: where items are looked up over libraries.\n",
            stderr);
        return 2;
    }
    dataUrl = argv[1], apiKey = argv[2], apiSecret = argv[3], token = argv[4];
    for (int i = 6; i < argc; ++i) {
        listOnly |= strcmp(argv[i], "--list-only") == 0;
        if (strcmp(argv[i], "--addresses") == 0 && i + 1 < argc) notes = fopen(argv[++i], "w");
#ifdef OVER_LIBRARIES
        if (strcmp(argv[i], "--database") == 0 && i + 1 < argc) libraryOpen(argv[++i]);
#endif
    }

    struct Text sets = {0};
    call("flickr.photosets.getList", "", "", 0, &sets);
    for (const char* tag = sets.data; (tag = strstr(tag, "<photoset ")); ++tag) {
        char id[kIdSize], photos[kIdSize], videos[kIdSize];
        attribute(tag, "id", id, sizeof id);
        attribute(tag, "photos", photos, sizeof photos);
        attribute(tag, "videos", videos, sizeof videos);
        backUpSet(id, atol(photos) + atol(videos), argv[5]);
    }
    backUpSet(kNoSet, 0, argv[5]);
    if (notes) fclose(notes);
    return 0;
}
