// The helper as a job of launchd.
#pragma once

#include <string>

#include "tools/Halvoctl/Service.hpp"

namespace halvo::control {

// By launchctl(1), of which only the exit status counts: what it prints is no interface.
class LaunchdService final : public Service {
  public:
    LaunchdService(const HelperIdentity& identity, HelperProcesses& processes, Programs& programs);

    std::vector<pid_t> running() override;
    std::vector<pid_t> stopped() override;
    std::string whatStarts() override;
    [[nodiscard]] std::string startCommand() const override;
    [[nodiscard]] std::string restartCommand() const override;
    // Takes the job out of launchd: SIGTERM alone would have it start the helper again. Takes away
    // the copy that a helper leaves which was killed.
    std::expected<void, std::string> stop(const Progress& progress) override;
    // Brings nothing back: only the app's registration (SMAppService) and the next boot do.
    std::expected<std::string, std::string> resume(const Progress& progress) override;

  private:
    // Whether launchd has the job, or why that cannot be told.
    std::expected<bool, std::string> isLoaded();

    HelperIdentity identity_;
    // "system/APP.helper".
    std::string job_;
    HelperProcesses& processes_;
    Programs& programs_;
    // stop() took the job out.
    bool isOut_ = false;
};

}  // namespace halvo::control
