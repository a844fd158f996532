// The helper under systemd, or started by hand where that does not run.
#pragma once

#include <optional>
#include <string>

#include "tools/Halvoctl/Linux/Systemd.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// Asks systemd once about the units, and keeps the answer.
class SystemdService final : public Service {
  public:
    // `systemd`: null where it is not the machine's init system; sd_booted(3).
    SystemdService(HelperIdentity identity, std::string executable,
                   std::unique_ptr<Systemd> systemd, HelperProcesses& processes, Waiter& waiter);

    std::string whatStarts() override;
    [[nodiscard]] std::string startCommand() const override;
    [[nodiscard]] std::string restartCommand() const override;
    std::expected<void, std::string> stop() override;
    std::expected<std::string, std::string> resume() override;
    // A helper in the unit's sandbox can lock nowhere else; else anywhere.
    std::vector<std::string> otherApplications() override;
    Checks examine() override;
    Checks examineApp(const std::string& app, bool isRoot) override;
    Checks examineSession(std::uint32_t uid) override;

  private:
    // Not where systemd does not run.
    const std::expected<Units, std::string>& units();

    HelperIdentity identity_;
    std::string executable_;
    std::unique_ptr<Systemd> systemd_;
    HelperProcesses& processes_;
    Waiter& waiter_;
    std::optional<std::expected<Units, std::string>> units_;
};

}  // namespace halvo::control
