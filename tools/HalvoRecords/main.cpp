// For the developers of the app: looks into what its processes share.

#include <iostream>

#include "tools/HalvoRecords/Tool.hpp"

int main(int argc, char** argv) {
    return halvo::tools::runProgram("halvo-records", argc, argv, [](const auto& arguments) {
        return halvo::records::run(arguments, std::cin, halvo::wallNow());
    });
}
