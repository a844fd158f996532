#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "benchmarks/Benchmark.hpp"
#include "tests/Support/TestBundle.hpp"

namespace halvo::benchmark {
namespace {

unsigned idFromEnvironment(const char* name) {
    const char* text = std::getenv(name);
    if (text == nullptr) {
        throw CannotMeasure(std::string(name) +
                            " is not set: start this with benchmarks/run, in a private machine");
    }
    return static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

std::int64_t* sharedNumber() {
    void* memory = mmap(nullptr, sizeof(std::int64_t), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "mmap");
    return static_cast<std::int64_t*>(memory);
}

// The end to read from, then the end to write to.
std::array<Descriptor, 2> makePipe() {
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace

std::int64_t monotonicNow() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

std::optional<int> processor(int index) {
    // What this process was given at its start; it may pin itself later.
    static const cpu_set_t usable = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    for (int number = 0; number < CPU_SETSIZE; ++number) {
        if (CPU_ISSET(number, &usable) && index-- == 0) {
            return number;
        }
    }
    return std::nullopt;
}

bool pin(pid_t pid, int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    return sched_setaffinity(pid, sizeof set, &set) == 0;
}

Program::Program(std::vector<std::string> words, const RunAs& how)
    : name_(words.front()), startedAt_(sharedNumber()), input_(makePipe()), process_([&] {
          if (dup2(input_[0].get(), STDIN_FILENO) < 0 ||
              (how.processor && !pin(0, *how.processor))) {
              std::exit(EXIT_FAILURE);
          }
          if (how.person) {
              // On a private machine a person's group has the number of the person.
              testing::become({*how.person, *how.person});
          }
          words.erase(words.begin());
          *startedAt_ = monotonicNow();
          testing::execute(name_, words);
      }) {}

Program::~Program() {
    if (!ended_) {
        process_.send(SIGTERM);
        process_.wait();
    }
    munmap(startedAt_, sizeof *startedAt_);
}

void Program::tell(const std::string& line) const {
    const std::string bytes = line + "\n";
    require(write(input_[1].get(), bytes.data(), bytes.size()) == std::ssize(bytes), name_);
}

std::string Program::hear() {
    const std::string line = process_.readLine();
    return !line.empty() ? line : throw CannotMeasure(name_ + " does not answer");
}

std::string Program::hearAll() {
    const std::string all = process_.readAll();
    const int status = process_.wait();
    ended_ = true;
    return status == 0 ? all
                       : throw CannotMeasure(name_ + " ended with status " +
                                             std::to_string(status) + ": " + all);
}

Machine::Machine(std::string buildFolder, bool isQuick)
    : build(std::move(buildFolder)),
      quick(isQuick),
      person(idFromEnvironment("HALVO_UID")),
      socket(HelperBus::socketPath(HALVO_APP_BUNDLE_ID ".helper")) {
    const testing::TestBundle app(bundle, "Halvo");
    app.writeInfo(HALVO_APP_BUNDLE_ID, HALVO_TEAM_ID);
    app.install(idFromEnvironment("HALVO_APP_GID"));
}

}  // namespace halvo::benchmark
