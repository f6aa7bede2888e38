// From a connection string to a database.

#ifndef STANDIN_FRAMEWORK_STORE_DATABASEREGISTRY_H
#define STANDIN_FRAMEWORK_STORE_DATABASEREGISTRY_H

#include <functional>
#include <string>

namespace Norvale_Plugin_Core {

class BackupDatabase;

/// Calls work with the BackupDatabase that is open for path, or with one opened for this call. Throws
/// Poco::Exception, also for a file that does not exist.
void withDatabase(const std::string& path, const std::function<void(BackupDatabase&)>& work);

/// Puts every change of the databases that are open in this process on the disk.
void flushOpenDatabases();

}  // namespace Norvale_Plugin_Core

#endif
