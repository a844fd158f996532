#include "tests/Support/SimulatedWorld.hpp"

#include <algorithm>
#include <array>
#include <filesystem>

namespace halvo::testing {
namespace {

std::string_view lastComponent(std::string_view path) {
    return path.substr(path.find_last_of('/') + 1);
}

}  // namespace

void CallLog::enter(std::string_view verb, std::string_view object) {
    if (untilCrash_ != 0 && --untilCrash_ == 0) {
        throw Crash{};
    }
    if (!recording_) {
        return;
    }
    std::string& call = calls_.emplace_back(verb);
    if (!object.empty()) {
        call += ' ';
        call += object;
    }
}

std::vector<std::string> CallLog::changes() const {
    constexpr std::array<std::string_view, 5> verbs{"save", "remove", "lock", "unlock", "open"};
    std::vector<std::string> result;
    for (const std::string& call : calls_) {
        if (std::ranges::find(verbs, call.substr(0, call.find(' '))) != verbs.end()) {
            result.push_back(call);
        }
    }
    return result;
}

std::size_t CallLog::count(std::string_view call) const {
    return static_cast<std::size_t>(std::ranges::count(calls_, call));
}

ClockReading SimulatedClock::reading() {
    log_.enter("reading");
    return now_;
}

void SimulatedClock::advance(Seconds span) {
    now_.sinceBoot += span;
    now_.wall += span;
}

void SimulatedClock::reboot(Seconds off, Seconds up) {
    now_.bootID = "boot " + std::to_string(++boots_);
    now_.sinceBoot = up;
    now_.wall += off + up;
}

LockState SimulatedFlags::state(const std::string& path) {
    log_.enter("state", lastComponent(path));
    const auto item = items_.find(path);
    if (item == items_.end()) {
        return LockState::missing;
    }
    return item->second ? LockState::locked : LockState::unlocked;
}

bool SimulatedFlags::setLocked(bool locked, const std::string& path) {
    log_.enter(locked ? "lock" : "unlock", lastComponent(path));
    const auto item = items_.find(path);
    if (item == items_.end()) {
        return false;
    }
    // Flags that are as asked need no change, which could fail.
    if (item->second != locked && (locked ? failsToLock : failsToUnlock)) {
        return false;
    }
    item->second = locked;
    return true;
}

bool SimulatedFlags::isSet(const std::string& path) const {
    const auto item = items_.find(path);
    return item != items_.end() && item->second;
}

StoredCommitment SimulatedStore::load() {
    log_.enter("load");
    return stored;
}

bool SimulatedStore::saveDurably(const HelperCommitment& commitment) {
    log_.enter("save", commitment.locked ? "locked" : "unlocked");
    if (!failsToSave) {
        stored = commitment;
    }
    return !failsToSave && !failsToSync;
}

void SimulatedStore::remove() {
    log_.enter("remove");
    if (!failsToRemove) {
        stored = NoCommitment{};
    }
}

std::optional<std::uint32_t> SimulatedSession::consoleUser() {
    log_.enter("console");
    return console;
}

bool SimulatedSession::isAppRunning(const std::string& bundlePath, std::uint32_t uid) {
    log_.enter("running?", lastComponent(bundlePath));
    return runs(bundlePath, uid);
}

bool SimulatedSession::runs(const std::string& bundlePath, std::uint32_t uid) const {
    const auto users = running_.find(bundlePath);
    return users != running_.end() && users->second.contains(uid);
}

void SimulatedOpener::open(const std::string& appPath, std::uint32_t uid, bool afterQuit) {
    log_.enter("open", lastComponent(appPath));
    openings.push_back({appPath, uid, afterQuit, clock_.now().sinceBoot});
    if (startsApps) {
        session_.start(appPath, uid);
    }
}

std::string SimulatedWorld::addBundle(const std::string& relativePath) {
    std::string path = disk_ / relativePath;
    restoreBundle(path);
    return path;
}

void SimulatedWorld::deleteBundle(const std::string& path) {
    std::filesystem::remove(path);
    flags.erase(path);
}

void SimulatedWorld::restoreBundle(const std::string& path) {
    std::filesystem::create_directories(path);
    flags.add(path);
}

}  // namespace halvo::testing
