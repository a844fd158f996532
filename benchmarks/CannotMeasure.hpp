// The end of a benchmark that has no result.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace halvo::benchmark {

// Something stands in the way of measuring; the text says what. Ends the run: half a table could be
// taken for a whole one.
class CannotMeasure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Throws `what` with the present errno when `ok` is false.
inline void require(bool ok, const std::string& what) {
    if (!ok) {
        throw CannotMeasure(what + ": " + std::generic_category().message(errno));
    }
}

}  // namespace halvo::benchmark
