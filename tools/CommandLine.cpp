#include "tools/CommandLine.hpp"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>
#include <ranges>
#include <sstream>
#include <utility>

#include "tools/HalvoRecords/TerminalText.hpp"

namespace halvo::tools {

std::optional<Outcome> parse(CLI::App& parser, const std::vector<std::string>& words) {
    // In reverse order, as CLI11 takes them. After "--name=" it would take the next word as the
    // value.
    std::vector<std::string> stack;
    for (const std::string& word : std::views::reverse(words)) {
        const bool hasEmptyValue = word.starts_with("--") && word.ends_with('=');
        if (hasEmptyValue) {
            stack.emplace_back();
        }
        stack.push_back(word.substr(0, word.size() - (hasEmptyValue ? 1 : 0)));
    }
    try {
        parser.parse(std::move(stack));
        return std::nullopt;
    } catch (const CLI::Success& asked) {
        std::ostringstream output;
        parser.exit(asked, output);
        return Outcome{ExitStatus::fine, output.str(), ""};
    } catch (const CLI::ParseError& error) {
        const auto unknown = parser.remaining(true);
        const std::string problem =
            unknown.empty() ? error.what() : "Unknown command or option '" + unknown.front() + "'";
        const std::string& name = parser.get_name();
        return Outcome{ExitStatus::usage, "",
                       name + ": " + records::printable(problem) + ". See " + name + " --help.\n"};
    }
}

int runProgram(const std::string& name, int count, char** arguments,
               const std::function<Outcome(const std::vector<std::string>&)>& run) {
    try {
        // A closed pipe becomes a failed write.
        std::signal(SIGPIPE, SIG_IGN);
        // Otherwise a failed read of standard input would look like its end.
        std::ios::sync_with_stdio(false);
        const Outcome outcome = run({arguments + (count > 0 ? 1 : 0), arguments + count});
        std::cout << outcome.output << std::flush;
        std::cerr << outcome.errors << std::flush;
        if (!std::cout) {
            std::cerr << name << ": The output could not be written.\n" << std::flush;
            return ExitStatus::outputLost;
        }
        return outcome.status;
    } catch (const std::bad_alloc&) {
        std::fputs((name + ": There is not enough memory.\n").c_str(), stderr);
        return ExitStatus::system;
    } catch (const std::exception& error) {
        std::fputs((name + ": " + error.what() + "\n").c_str(), stderr);
        return ExitStatus::system;
    }
}

}  // namespace halvo::tools
