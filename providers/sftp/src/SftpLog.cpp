#include "SftpLog.h"

namespace foundation::storage::provider::sftp {

const log::diagnostic_logger& sftpLogger() {
  static const log::diagnostic_logger logger("storage::sftpprovider");
  return logger;
}

}  // namespace foundation::storage::provider::sftp
