// For the developers of the app: looks into what its processes share.

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "tools/HalvoRecords/Tool.hpp"

int main(int count, char** words) {
    using namespace halvo;
    try {
        // A reader that goes away shows as a write that fails.
        std::signal(SIGPIPE, SIG_IGN);
        // Only so does a failed read of standard input show.
        std::ios::sync_with_stdio(false);
        const std::vector<std::string> list(words + (count > 0 ? 1 : 0), words + count);
        const records::Outcome outcome = records::run(list, std::cin, wallNow());
        std::cout << outcome.output << std::flush;
        std::cerr << outcome.errors << std::flush;
        if (!std::cout) {
            std::cerr << "halvo-records: The output could not be written.\n" << std::flush;
            return records::ExitStatus::outputLost;
        }
        return outcome.status;
    } catch (const std::exception&) {
        std::fputs("halvo-records: There is not enough memory.\n", stderr);
        return records::ExitStatus::notFine;
    }
}
