#include "FromLog.h"

namespace mlbd {
namespace replay {

bool traceFromLog(const std::string& path, std::string* trace, std::string* why) {
    (void)trace;
    *why = "not implemented: " + path;
    return false;
}

}  // namespace replay
}  // namespace mlbd
