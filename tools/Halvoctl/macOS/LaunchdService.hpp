// The helper as a job of launchd.
#pragma once

#include <string>
#include <vector>

#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// launchctl(1), of which only the exit status counts: what it prints is no interface.
class Launchctl {
  public:
    virtual ~Launchctl() = default;

    // Runs it with the arguments `words`, and waits for its end, at most for `limit`; says `line`
    // when that takes a second. Returns its exit status, or 128 and the number of the signal that
    // ended it. Fails, with a sentence without a full stop, when it cannot be started or takes too
    // long; it is killed then.
    virtual std::expected<int, std::string> run(const std::vector<std::string>& words,
                                                Seconds limit, const std::string& line) = 0;
};

// The system's own. It gets an environment of PATH and LC_ALL=C, nothing to read, the usual
// signals, and a process group of its own: what is typed at the terminal does not reach it.
class LiveLaunchctl final : public Launchctl {
  public:
    // Borrows `waiter`. `program`: another in its place, for tests.
    explicit LiveLaunchctl(Waiter& waiter, std::string program = "/bin/launchctl")
        : waiter_(waiter), program_(std::move(program)) {}

    std::expected<int, std::string> run(const std::vector<std::string>& words, Seconds limit,
                                        const std::string& line) override;

  private:
    Waiter& waiter_;
    std::string program_;
};

class LaunchdService final : public Service {
  public:
    // Of the helper at `executable`.
    LaunchdService(const HelperIdentity& identity, std::string executable,
                   std::unique_ptr<Launchctl> launchctl, HelperProcesses& processes,
                   Waiter& waiter);

    std::string whatStarts() override;
    [[nodiscard]] std::string startCommand() const override;
    [[nodiscard]] std::string restartCommand() const override;
    // Takes the job out of launchd: SIGTERM alone would have it start the helper again. Takes away
    // the copy that a helper leaves which was killed.
    std::expected<void, std::string> stop() override;
    // Brings nothing back: only the app's registration (SMAppService) and the next boot do.
    std::expected<std::string, std::string> resume() override;
    std::vector<std::string> otherApplications() override;
    // How the app is opened again. What launchd has is said where the helper does not run.
    Checks examine() override;
    Checks examineApp(const std::string& app, bool isRoot) override;
    Checks examineSession(std::uint32_t uid) override;

  private:
    // Whether launchd has the job, or why that cannot be told.
    std::expected<bool, std::string> isLoaded();

    HelperIdentity identity_;
    std::string executable_;
    // "system/APP.helper".
    std::string job_;
    std::unique_ptr<Launchctl> launchctl_;
    HelperProcesses& processes_;
    Waiter& waiter_;
    // stop() took the job out.
    bool isOut_ = false;
};

// What of the helper's, whose executable is at `helper`, it starts as root to open the app.
Check checkOpening(const std::string& helper, const HelperIdentity& identity);

}  // namespace halvo::control
