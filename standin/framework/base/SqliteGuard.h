// What stands between SQLite and a device that may have been prepared by a stranger. It holds for every
// connection of the process: the plug-in's sessions open by name, through a library that knows nothing of it.
//
//   default VFS           A name that is admitted leads to its real path, and to nothing when another file
//                         stands there by now. While any is admitted every other name is refused, and no file
//                         is made that is missing. A rollback journal cannot name other files to be removed.
//   automatic extension   Each connection is defensive, does not trust the schema, attaches nothing, refuses
//                         huge values, and gives up a long statement after a stop.
//
// While no database is admitted names lead where they lead without it.

#ifndef STANDIN_FRAMEWORK_BASE_SQLITEGUARD_H
#define STANDIN_FRAMEWORK_BASE_SQLITEGUARD_H

#include <sqlite3.h>
#include <sys/types.h>

#include <string>

namespace flickr_standin {

/// Who decides about the run that the databases are part of; either may be null.
struct SqliteObserver {
    bool (*isStopped)();                            ///< statements and waits for locks end soon then
    void (*databaseGone)(const std::string& path);  ///< an admitted file is not at its path any more
};

/// To be called before any database is opened.
void observeSqlite(const SqliteObserver& wanted);

/// What the observer says.
bool isSqliteStopped();

/// Sets the guard up, the first time, and opens a connection that the guard lets through whatever is
/// admitted; a link anywhere in the path is refused. Connections from before stay as they are. flags and the
/// result as with sqlite3_open_v2.
int openGuarded(const std::string& path, sqlite3** database, int flags);

/// While it lives sessions of the process can be opened under name, which leads to the file that stood at
/// realPath when it was made. Both are absolute.
class AdmittedDatabase {
public:
    AdmittedDatabase(std::string name, std::string realPath);
    ~AdmittedDatabase();
    AdmittedDatabase(const AdmittedDatabase&) = delete;
    AdmittedDatabase& operator=(const AdmittedDatabase&) = delete;

    /// Whether the file is still the one at its path. When it is not the observer is told: what is written to
    /// a file without a name is lost.
    bool isThere() const;

    const std::string& path() const { return path_; }

private:
    const std::string name_;
    const std::string path_;
    dev_t device_ = 0;
    ino_t file_ = 0;
};

}  // namespace flickr_standin

#endif
