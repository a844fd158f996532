// For programs that tests start, to tell how they were started.
#pragma once

namespace halvo::testing {

// Leaves the report that TestReport.hpp describes, of main()'s own arguments. The status to exit
// with.
int reportStart(int count, char** words, char** environment);

}  // namespace halvo::testing
