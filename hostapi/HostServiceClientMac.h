// The host's file service on the backup device.

#ifndef HOSTAPI_HOSTSERVICECLIENTMAC_H
#define HOSTAPI_HOSTSERVICECLIENTMAC_H

#include <memory>
#include <string>

namespace Norvale_Plugin_Core {

/// A client of the file service. Everything that the plug-in puts on the device goes through one.
///
/// Paths are relative to the service folder of HostServiceUsageParams::setParams(), in UTF-8, with "/"
/// between the names and none in front: "Trip/sunset.jpg". A path that leads out of that folder is refused.
///
/// Every operation answers through three texts: the command as the service understood it, a result word,
/// and an explanation. The result word of a success is "SUC"; with any other the explanation says what was
/// wrong and nothing was changed. No operation throws.
///
/// A client is cheap; each activity has one of its own and uses it from one thread at a time. Open files
/// belong to the client that opened them and are discarded with it.
class HostServiceClientMac {
public:
    HostServiceClientMac();
    ~HostServiceClientMac();
    HostServiceClientMac(const HostServiceClientMac&) = delete;
    HostServiceClientMac& operator=(const HostServiceClientMac&) = delete;

    /// Opens and closes the connection to the file service. Both may be repeated; the operations below work
    /// without a connect() too.
    void connect();
    void disConnect();

    /// Opens a new file that is to stand at path. The caller chooses the handle: mode is the number by
    /// which every later call of this client names the file. Returns that handle. What stands at path stays
    /// as it is until closeFile().
    long openFile(std::string path, long mode, std::string& command, std::string& result, std::string& error);

    /// Appends count bytes to an open file.
    void writeFileV2(int handle, char* buffer, int count, std::string& command, std::string& result,
                     std::string& error);

    /// Completes an open file: after "SUC" it is whole, and every operation finds it at its path. The host
    /// may put off the name and the wait for the disk, but not beyond the row of its item: that is written
    /// (DbInterface::createEntry(), or a session after DbInterface::initialize()) when the file is on the
    /// disk under its name. metadata is the item's description (length bytes), or empty for a file that is
    /// no item of its own. After any other answer the file is still open and wants deleteFile(handle).
    void closeFile(long handle, char* metadata, int length, std::string& command, std::string& result,
                   std::string& error);

    /// Discards an open file.
    void deleteFile(long handle, std::string& command, std::string& result, std::string& error);

    /// Removes the file at path.
    void deleteFile(std::string path, std::string& command, std::string& result, std::string& error);

    /// Renames a file. Refused when something stands at the new path.
    void renameFile(std::string from, std::string to, std::string& command, std::string& result,
                    std::string& error);

    /// Makes a directory. One that exists already is a success.
    void createDirectory(std::string path, std::string& command, std::string& result, std::string& error);

    /// Renames a directory with all that it holds. Refused when something stands at the new path.
    void renameDirectory(std::string from, std::string to, std::string& command, std::string& result,
                         std::string& error);

    /// Removes an empty directory; refused for one that holds anything.
    void deleteDirectory(std::string path, std::string& command, std::string& result, std::string& error);

    /// Places a folder's description: the plug-in's root folder with a "/" at its end, the text that
    /// ItemDataManager::saveItemData() gave for the folder, and a text that is empty. The host may write it
    /// later: the last one of a folder counts, at the end of the run at the latest.
    void writeFolderDataXML(std::string root, std::string description, std::string reserved);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Norvale_Plugin_Core

#endif
