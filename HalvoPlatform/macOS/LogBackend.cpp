#include "LogBackend.hpp"

#include "HalvoPlatform/Log.hpp"

namespace halvo {

os_log_t systemLog(const Logger& logger) {
    return os_log_create(logger.subsystem, logger.category);
}

void setLogContext(const LogContext*) {}

void logToTerminalToo() {}

}  // namespace halvo
