// A record in a JSON file that the app's processes share.
#pragma once

#include <cstddef>
#include <expected>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "HalvoPlatform/Files.hpp"
#include "HalvoShared/JSON.hpp"

namespace halvo {

// A record that could not be written. The text is for a person and begins with the path:
// "/home/ann/widgets.json: No space left on device".
class SharedFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What does not depend on the type of the record.
namespace shared_file {

// A longer file is neither read nor written. Decoding takes at most some hundred times as much
// memory.
inline constexpr std::size_t sizeLimit = std::size_t{1} << 20U;

// Replaces the file; throws SharedFileError.
void store(const std::string& url, std::string_view bytes);

// As SharedFile::remove().
void remove(const std::string& url) noexcept;

}  // namespace shared_file

// The file at `url` as a T, a record of JSON.hpp. A value that holds only the path; nothing is
// cached. Any thread and any process, without locks: a reader gets what one writer wrote, whole,
// and the last write counts. A process that is killed while it writes may leave a file
// ".NAME.PID-COUNT.new".
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

    // The record, or nothing when the file is missing or cannot be read or decoded.
    [[nodiscard]] std::optional<T> read() const {
        auto loaded = load();
        return loaded ? std::optional<T>(*std::move(loaded)) : std::nullopt;
    }

    // As read(), or the reason for a person: "PATH: phases[3].start: Expected a date such as ...".
    [[nodiscard]] std::expected<T, std::string> load() const {
        try {
            const auto bytes = readFile(url_, shared_file::sizeLimit);
            if (!bytes) {
                return std::unexpected(bytes.error().message);
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

    // Replaces the file atomically, with the permissions 0600. The folder must exist. Throws
    // SharedFileError when the record has no JSON, is too long, or cannot be written; the earlier
    // file is then still there, unless all that failed is the last step, to sync the folder. Throws
    // std::bad_alloc before the file is touched.
    void write(const T& value) const {
        const auto json = JSON::encode(value);
        if (!json) {
            throw SharedFileError(url_ + ": " + JSON::description(json.error()));
        }
        shared_file::store(url_, *json);
    }

    // Deletes the file; failures are ignored.
    void remove() const noexcept { shared_file::remove(url_); }

    bool operator==(const SharedFile&) const = default;

  private:
    std::string url_;
};

}  // namespace halvo
