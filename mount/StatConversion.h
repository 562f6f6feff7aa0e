// Conversions between the provider's attributes and POSIX stat values. Pure functions.
// Modes: a file is 0644 (0444 when not writable), a folder 0755 (0555); the store keeps no
// other permission bits and no owners, so uid and gid are the mounting user's. Link counts
// are 1 (a folder's too: its sub-folders are not counted).
#pragma once

#include <foundation/storage/provider/Attributes.h>

#include <sys/stat.h>
#include <ctime>

namespace storage::mount {

struct Owner {
  uid_t uid;
  gid_t gid;
};

void fillFileStat(const foundation::storage::provider::FileAttributes& attributes, Owner owner,
                  struct stat& st);
void fillFolderStat(const foundation::storage::provider::FolderAttributes& attributes, Owner owner,
                    struct stat& st);
// The epoch for a time the store does not know.
timespec toTimespec(const boost::posix_time::ptime& time);
boost::posix_time::ptime fromTimespec(const timespec& time);

}  // namespace storage::mount
