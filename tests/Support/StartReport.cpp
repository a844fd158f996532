#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/Support/TestBundle.hpp"

namespace {

[[noreturn]] void giveUp(const char* call) {
    std::printf("%s: %m\n", call);
    std::exit(EXIT_FAILURE);
}

std::string ownPath() {
    std::array<char, PATH_MAX> buffer{};
    if (readlink("/proc/self/exe", buffer.data(), buffer.size() - 1) < 0) {
        giveUp("readlink");
    }
    return buffer.data();
}

void reportIdentity(std::ostream& report) {
    const auto add = [&report](const char* key, auto... numbers) {
        ((report << key << '=' << numbers << '\n'), ...);
    };
    unsigned real = 0;
    unsigned effective = 0;
    unsigned saved = 0;
    getresuid(&real, &effective, &saved);
    add("user", real, effective, saved);
    getresgid(&real, &effective, &saved);
    add("group", real, effective, saved);
    std::array<gid_t, NGROUPS_MAX> more{};
    const int count = getgroups(more.size(), more.data());
    for (int i = 0; i < count; ++i) {
        add("supplementary", more[static_cast<std::size_t>(i)]);
    }
}

void reportDescriptors(std::ostream& report) {
    namespace fs = std::filesystem;
    for (int number = 0; number < 1024; ++number) {
        std::error_code error;
        const auto target = fs::read_symlink("/proc/self/fd/" + std::to_string(number), error);
        if (!error) {
            report << "descriptor=" << number << ' ' << target.native() << ' '
                   << ((fcntl(number, F_GETFL) & O_ACCMODE) == O_RDWR ? "rw" : "-") << '\n';
        }
    }
}

void reportSignals(std::ostream& report) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        for (const std::string name : {"SigBlk", "SigIgn", "SigCgt"}) {
            if (line.starts_with(name + ":\t")) {
                report << name << '=' << line.substr(name.size() + 2) << '\n';
            }
        }
    }
}

void writeReport(int argc, char** argv, char** environment, std::ostream& report) {
    report << "pid=" << getpid() << '\n';
    report << "executable=" << ownPath() << '\n';
    for (int i = 0; i < argc; ++i) {
        report << "argument=" << argv[i] << '\n';
    }
    for (char** variable = environment; *variable != nullptr; ++variable) {
        report << "environment=" << *variable << '\n';
    }
    reportIdentity(report);
    reportDescriptors(report);
    reportSignals(report);
    report << "folder=" << std::filesystem::current_path().native() << '\n';
    report << "umask=" << std::oct << umask(0) << std::dec << '\n';
    itimerval timer{};
    getitimer(ITIMER_REAL, &timer);
    report << "alarm=" << timer.it_value.tv_sec << '\n';
    report << "session=" << (getsid(0) == getpid() ? "own" : "other") << '\n';
}

}  // namespace

namespace halvo::testing {

int reportStart(int argc, char** argv, char** environment) {
    const std::string path = ownPath();
    std::ostringstream text;
    writeReport(argc, argv, environment, text);
    // Renamed into place, so that no reader sees a partial report.
    for (const std::string& place : {path, "/tmp" + path.substr(path.find_last_of('/'))}) {
        const std::string part = place + ".part";
        std::ofstream file(part);
        file << text.str();
        file.close();
        if (file.good() && rename(part.c_str(), (place + ".report").c_str()) == 0) {
            break;
        }
    }
    for (int turn = 0; turn < 3000 && std::filesystem::exists(path + ".hold"); ++turn) {
        usleep(10'000);
    }
    return EXIT_SUCCESS;
}

}  // namespace halvo::testing

// For a program that only reports its start; other programs define their own.
[[gnu::weak]] int main(int argc, char** argv, char** environment) {
    return halvo::testing::reportStart(argc, argv, environment);
}
