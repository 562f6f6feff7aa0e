#include "MemLog.h"

namespace foundation::storage::provider::mem {

const log::diagnostic_logger& memLogger() {
  static const log::diagnostic_logger logger("storage::memprovider");
  return logger;
}

}  // namespace foundation::storage::provider::mem
