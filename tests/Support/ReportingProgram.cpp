// A program that reports how it was started, and ends: TestReport.hpp.

#include "tests/Support/TestReport.hpp"

int main(int count, char** words, char** environment) {
    return halvo::testing::reportStart(count, words, environment);
}
