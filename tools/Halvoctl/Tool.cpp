#include "tools/Halvoctl/Tool.hpp"

#include <variant>

#include "HalvoPlatform/Version.hpp"
#include "tools/Halvoctl/Arguments.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tools/Halvoctl/Release.hpp"
#include "tools/Halvoctl/Status.hpp"

namespace halvo::control {
namespace {

Outcome failure(int status, const std::string& problem) {
    return {status, "", "halvoctl: " + problem + "\n"};
}

class Runner {
  public:
    Runner(const std::function<MachineOr()>& machine, const GregorianCalendar& calendar,
           const Progress& progress)
        : machine_(machine), calendar_(calendar), progress_(progress) {}

    Outcome operator()(const ShowHelp& command) const {
        return {ExitStatus::fine, command.text, ""};
    }

    Outcome operator()(const ShowVersion&) const {
        return {ExitStatus::fine, std::string("halvoctl ") + version + "\n", ""};
    }

    Outcome operator()(const ShowStatus& command) const {
        return asRoot("The state can only be read as root. Type: sudo halvoctl status",
                      [&](Machine& machine) {
                          const Observation seen = observe(machine);
                          return Outcome{ExitStatus::fine,
                                         command.asJSON ? statusJSON(machine, seen)
                                                        : statusText(machine, seen, calendar_),
                                         ""};
                      });
    }

    Outcome operator()(const Examine& command) const {
        const MachineOr machine = machine_();
        const Checks checks =
            machine
                ? examine(*machine, command.app)
                : Checks{isProblem("helper files", machine.error(), "Install the helper again.")};
        return {hasProblem(checks) ? ExitStatus::problem : ExitStatus::fine,
                command.asJSON ? doctorJSON(checks) : doctorText(checks), ""};
    }

    Outcome operator()(const Release& command) const {
        return asRoot(
            "Only root can let go of what holds. Type: sudo halvoctl release",
            [&](Machine& machine) { return release(machine, command, calendar_, progress_); });
    }

  private:
    [[nodiscard]] Outcome asRoot(const std::string& otherwise,
                                 const std::function<Outcome(Machine&)>& work) const {
        const MachineOr machine = machine_();
        if (!machine) {
            return failure(ExitStatus::config, machine.error() + ". Install the helper again.");
        }
        return machine->get().isRoot ? work(*machine)
                                     : failure(ExitStatus::noPermission, otherwise);
    }

    const std::function<MachineOr()>& machine_;
    const GregorianCalendar& calendar_;
    const Progress& progress_;
};

}  // namespace

Outcome run(std::span<const std::string> words, const std::function<MachineOr()>& machine,
            const GregorianCalendar& calendar, const Progress& progress) {
    const auto command = parseArguments(words);
    return command ? std::visit(Runner(machine, calendar, progress), *command)
                   : failure(ExitStatus::wrongWords, command.error() + " See halvoctl --help.");
}

}  // namespace halvo::control
