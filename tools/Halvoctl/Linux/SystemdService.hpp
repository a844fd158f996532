// The helper under systemd, or started by hand where that does not run.
#pragma once

#include <optional>
#include <string>

#include "tools/Halvoctl/Linux/Units.hpp"
#include "tools/Halvoctl/Service.hpp"

namespace halvo::control {

class SystemdService final : public Service {
  public:
    // `isBooted`: systemd is the machine's init system; sd_booted(3).
    SystemdService(HelperIdentity identity, std::string executable, bool isBooted,
                   HelperProcesses& processes, Programs& programs);

    std::vector<pid_t> running() override;
    std::vector<pid_t> stopped() override;
    std::string whatStarts() override;
    [[nodiscard]] std::string startCommand() const override;
    [[nodiscard]] std::string restartCommand() const override;
    std::expected<void, std::string> stop(const Progress& progress) override;
    std::expected<std::string, std::string> resume(const Progress& progress) override;

  private:
    HelperIdentity identity_;
    std::string executable_;
    bool isBooted_;
    HelperProcesses& processes_;
    Programs& programs_;
    // The socket as stop() found it.
    Unit socket_;
};

}  // namespace halvo::control
