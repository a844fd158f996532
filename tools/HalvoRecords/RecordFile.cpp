#include "tools/HalvoRecords/RecordFile.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

using Json = nlohmann::json;

std::string_view nameOf(std::string_view path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Reads as far as the first member that only one kind of record has. Keeps nothing, so that it
// costs no memory however the text is nested.
class KindFinder final : public nlohmann::json_sax<Json> {
  public:
    [[nodiscard]] std::optional<RecordKind> kind() const { return kind_; }

    bool null() override { return true; }

    bool boolean(bool /*value*/) override { return true; }

    bool number_integer(number_integer_t /*value*/) override { return true; }

    bool number_unsigned(number_unsigned_t /*value*/) override { return true; }

    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }

    bool string(string_t& /*value*/) override { return true; }

    bool binary(binary_t& /*value*/) override { return true; }

    bool start_object(std::size_t /*count*/) override { return enter(); }

    bool end_object() override { return leave(); }

    bool start_array(std::size_t /*count*/) override { return enter(); }

    bool end_array() override { return leave(); }

    bool key(string_t& name) override {
        if (depth_ == 1) {
            if (name == "pid" || name == "appPath" || name == "clean" || name == "ultraHard") {
                kind_ = RecordKind::keepAlive;
            } else if (name == "phases" || name == "horizon" || name == "writtenAt") {
                kind_ = RecordKind::widgets;
            }
        }
        return !kind_;
    }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& /*problem*/) override {
        return false;
    }

  private:
    bool enter() {
        ++depth_;
        return true;
    }

    bool leave() {
        --depth_;
        return true;
    }

    std::size_t depth_ = 0;
    std::optional<RecordKind> kind_;
};

std::optional<RecordKind> kindOfName(const std::string& file) {
    if (nameOf(file) == KeepAliveState::fileName) {
        return RecordKind::keepAlive;
    }
    return nameOf(file) == WidgetSnapshot::fileName ? std::optional(RecordKind::widgets)
                                                    : std::nullopt;
}

std::optional<RecordKind> kindOfMembers(const std::string& bytes) {
    KindFinder finder;
    Json::sax_parse(bytes, &finder);
    return finder.kind();
}

std::expected<std::string, std::string> readAll(std::istream& input) {
    std::string bytes;
    std::array<char, 65536> part{};
    while (input.good() && bytes.size() <= shared_file::sizeLimit) {
        input.read(part.data(), part.size());
        bytes.append(part.data(), static_cast<std::size_t>(input.gcount()));
    }
    if (input.bad()) {
        return std::unexpected("This cannot be read");
    }
    if (bytes.size() > shared_file::sizeLimit) {
        return std::unexpected("This is longer than any record");
    }
    return bytes;
}

std::expected<std::string, std::string> read(const std::string& file, std::istream& input) {
    if (file == standardInput) {
        auto bytes = readAll(input);
        return bytes ? std::move(bytes)
                     : std::unexpected(title(file) + ": " + std::move(bytes.error()));
    }
    auto bytes = shared_file::load(file);
    return bytes ? std::move(bytes) : std::unexpected(printable(bytes.error()));
}

template <class T>
std::expected<Record, std::string> decode(const std::string& file, const std::string& bytes) {
    auto record = JSON::decode<T>(bytes);
    if (!record) {
        return std::unexpected(title(file) + ": " + printable(JSON::description(record.error())));
    }
    return *std::move(record);
}

// Of a text that is no record that can be told, but may be no JSON at all.
std::expected<Record, std::string> decodeNeither(const std::string& file,
                                                 const std::string& bytes) {
    const auto record = JSON::decode<WidgetSnapshot>(bytes);
    if (!record && record.error().kind == JSON::DecodingError::Kind::Malformed) {
        return decode<WidgetSnapshot>(file, bytes);
    }
    return std::unexpected(title(file) +
                           ": This is neither a keep-alive state nor a widget snapshot");
}

}  // namespace

std::string title(const std::string& file) {
    return file == standardInput ? "standard input" : printable(file);
}

std::string ownFile(RecordKind kind, const std::optional<std::string>& group) {
    const bool isKeepAlive = kind == RecordKind::keepAlive;
    if (!group) {
        return isKeepAlive ? KeepAliveState::file().url() : WidgetSnapshot::file().url();
    }
    return AppGroup::containerOf(group) + "/" +
           (isKeepAlive ? KeepAliveState::fileName : WidgetSnapshot::fileName);
}

std::expected<Record, std::string> load(const std::string& file, std::optional<RecordKind> kind,
                                        std::istream& input) {
    try {
        const auto bytes = read(file, input);
        if (!bytes) {
            return std::unexpected(bytes.error());
        }
        if (!kind) {
            kind = kindOfName(file);
        }
        if (!kind) {
            kind = kindOfMembers(*bytes);
        }
        if (!kind) {
            return decodeNeither(file, *bytes);
        }
        return kind == RecordKind::keepAlive ? decode<KeepAliveState>(file, *bytes)
                                             : decode<WidgetSnapshot>(file, *bytes);
    } catch (const std::bad_alloc&) {
        return std::unexpected(title(file) + ": There is not enough memory to read it");
    }
}

}  // namespace halvo::records
