// A record in a JSON file that the app's processes share.
#pragma once

#include <cstddef>
#include <expected>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "HalvoShared/JSON.hpp"

namespace halvo {

// A record that could not be written; the text names the file, and the member where it is one's
// fault: "/home/ann/widgets.json: No space left on device".
class SharedFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What files share whatever their record.
namespace shared_file {

// A longer file is neither read nor written. The worst of that length takes some hundred times as
// much memory.
inline constexpr std::size_t sizeLimit = std::size_t{1} << 20U;

// The whole content of the file, or what a person is told, the path at its beginning.
std::expected<std::string, std::string> load(const std::string& url);

// Replaces the file; throws SharedFileError.
void store(const std::string& url, std::string_view bytes);

// As SharedFile::remove().
void remove(const std::string& url) noexcept;

}  // namespace shared_file

// The file at `url` as a T, a record that JSON.hpp can read and write. A value that keeps
// nothing but the path: reads and writes go to the disk each time. Any thread, and any process: of
// several writers the last one counts, and a reader has what one of them wrote, whole. Nobody waits
// for anybody. A process that is killed while it writes may leave a file ".NAME.PID-COUNT.new".
template <class T>
class SharedFile {
  public:
    // The file at the path `url`.
    explicit SharedFile(std::string url) : url_(std::move(url)) {}

    // The file `name` in the folder `folder`.
    SharedFile(const std::string& name, const std::string& folder)
        : url_(folder.empty() || folder.ends_with('/') ? folder + name : folder + "/" + name) {}

    // The file's path.
    [[nodiscard]] const std::string& url() const { return url_; }

    // The record, or nothing when there is none that can be read, for whatever reason.
    [[nodiscard]] std::optional<T> read() const {
        auto loaded = load();
        return loaded ? std::optional<T>(*std::move(loaded)) : std::nullopt;
    }

    // As read(), but says why there is none: "PATH: phases[3].start: Expected a date such as ...".
    [[nodiscard]] std::expected<T, std::string> load() const {
        try {
            const auto bytes = shared_file::load(url_);
            if (!bytes) {
                return std::unexpected(bytes.error());
            }
            auto record = JSON::decode<T>(*bytes);
            if (!record) {
                return std::unexpected(url_ + ": " + JSON::description(record.error()));
            }
            return *std::move(record);
        } catch (const std::bad_alloc&) {
            return std::unexpected(url_ + ": There is not enough memory to read it");
        }
    }

    // Puts `value` in the place of what was there, readable for the person alone (0600). Throws
    // SharedFileError when the record has no JSON, is too long, or the disk does not take it. What
    // was there is then still there, whole; only when the new one is in its place and the disk
    // cannot promise to keep it so is the new one there, whole. The folder must exist. Throws
    // std::bad_alloc, before anything else, when there is not the memory.
    void write(const T& value) const {
        const auto json = JSON::encode(value);
        if (!json) {
            throw SharedFileError(url_ + ": " + JSON::description(json.error()));
        }
        shared_file::store(url_, *json);
    }

    // Deletes the file, if there is one and it can be.
    void remove() const noexcept { shared_file::remove(url_); }

    bool operator==(const SharedFile&) const = default;

  private:
    std::string url_;
};

}  // namespace halvo
