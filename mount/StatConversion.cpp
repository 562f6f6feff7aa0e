#include "StatConversion.h"

#include <cstring>

namespace storage::mount {

namespace pt = boost::posix_time;

namespace {

const pt::ptime kEpoch(boost::gregorian::date(1970, 1, 1));

void fillCommon(const pt::ptime& lastModified, Owner owner, struct stat& st) {
  std::memset(&st, 0, sizeof st);
  st.st_uid = owner.uid;
  st.st_gid = owner.gid;
  st.st_mtim = toTimespec(lastModified);
  st.st_atim = st.st_mtim;
  st.st_ctim = st.st_mtim;
  st.st_blksize = 4096;
}

}  // namespace

void fillFileStat(const foundation::storage::provider::FileAttributes& attributes, Owner owner,
                  struct stat& st) {
  fillCommon(attributes.getLastModified(), owner, st);
  st.st_mode = S_IFREG | (attributes.isWritable() ? 0644 : 0444);
  st.st_nlink = 1;
  st.st_size = static_cast<off_t>(attributes.getSize().value_or(0));
  st.st_blocks = (st.st_size + 511) / 512;
}

void fillFolderStat(const foundation::storage::provider::FolderAttributes& attributes, Owner owner,
                    struct stat& st) {
  fillCommon(attributes.getLastModified(), owner, st);
  st.st_mode = S_IFDIR | (attributes.isWritable() ? 0755 : 0555);
  // 2 plus the sub-folders would need a listing of the folder; 1 is what file systems that
  // do not count say, and tells `find` not to rely on the count.
  st.st_nlink = 1;
}

timespec toTimespec(const pt::ptime& time) {
  timespec result{};
  if (time.is_special() || time < kEpoch) return result;
  const pt::time_duration since = time - kEpoch;
  result.tv_sec = static_cast<time_t>(since.total_seconds());
  result.tv_nsec = static_cast<long>(since.fractional_seconds() *
                                     (1000000000 / pt::time_duration::ticks_per_second()));
  return result;
}

pt::ptime fromTimespec(const timespec& time) {
  return kEpoch + pt::seconds(time.tv_sec) + pt::microseconds(time.tv_nsec / 1000);
}

}  // namespace storage::mount
