#include <plist/plist.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "../FakeDarwin.hpp"
#include "../FakeFoundation.hpp"
#include "../Parts.hpp"

namespace {

// A string of a property list becomes an NSString, any other value a plain object.
id objectOf(plist_t node) {
    if (plist_get_node_type(node) != PLIST_STRING) {
        return [[NSObject alloc] init];
    }
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    return fake::stringOf({text, length});
}

// The dictionary of an XML property list; nil when it has none.
NSDictionary<NSString*, id>* dictionaryOf(const std::string& propertyList) {
    plist_t root = nullptr;
    plist_from_xml(propertyList.data(), static_cast<std::uint32_t>(propertyList.size()), &root);
    const std::unique_ptr<void, decltype(&plist_free)> owner(root, plist_free);
    if (plist_get_node_type(root) != PLIST_DICT) {
        return nil;
    }
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(root, &iterator);
    std::vector<id> keys;
    std::vector<id> values;
    char* key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(root, iterator, &key, &value);
    while (value != nullptr) {
        keys.push_back(fake::stringOf(key));
        values.push_back(objectOf(value));
        std::free(key);
        plist_dict_next_item(root, iterator, &key, &value);
    }
    std::free(iterator);
    return [NSDictionary dictionaryWithObjects:values.data() forKeys:keys.data() count:keys.size()];
}

NSDictionary<NSString*, id>* __strong mainInfo = nil;

// Without a readable Info.plist -infoDictionary is empty.
NSDictionary<NSString*, id>* infoIn(const std::string& propertyList) {
    NSDictionary<NSString*, id>* info = dictionaryOf(propertyList);
    return info != nil ? info : @{};
}

}  // namespace

@implementation NSBundle {
    // Unless it is the main bundle: its folder, and the folder of its Info.plist.
    std::string _path;
    std::string _contents;
    BOOL _isMain;
}

+ (NSBundle*)mainBundle {
    NSBundle* bundle = [[NSBundle alloc] init];
    bundle->_isMain = YES;
    return bundle;
}

- (instancetype)initWithPath:(NSString*)path {
    if (path == nil) {
        fake::refuse("nil as a bundle's path");
    }
    self = [super init];
    if (self == nil || !std::filesystem::is_directory(fake::textOf(path))) {
        return nil;
    }
    _path = fake::textOf(path);
    const std::string contents = _path + "/Contents";
    _contents = std::filesystem::is_directory(contents) ? contents : _path;
    return self;
}

- (NSDictionary<NSString*, id>*)infoDictionary {
    if (_isMain) {
        return mainInfo != nil ? mainInfo : infoIn(fake::world().mainInfo);
    }
    std::ifstream file(_contents + "/Info.plist", std::ios::binary);
    return infoIn({std::istreambuf_iterator<char>(file), {}});
}

- (NSString*)executablePath {
    if (_isMain) {
        const auto& own = fake::world().mainExecutable;
        return own ? fake::stringOf(*own) : nil;
    }
    id name = self.infoDictionary[@"CFBundleExecutable"];
    if (![name isKindOfClass:[NSString class]]) {
        return nil;
    }
    const std::string folder = _contents == _path ? _path : _contents + "/MacOS";
    const std::string executable = folder + "/" + fake::textOf(name);
    return std::filesystem::is_regular_file(executable) ? fake::stringOf(executable) : nil;
}

@end

// Supports dictionaries only.
@implementation NSPropertyListSerialization

+ (id)propertyListWithData:(NSData*)data
                   options:(NSPropertyListReadOptions)options
                    format:(NSPropertyListFormat*)format
                     error:(NSError**)error {
    return dictionaryOf(std::string(static_cast<const char*>(data.bytes), data.length));
}

@end

namespace fake {

void setMainInfo(NSDictionary<NSString*, id>* info) { mainInfo = info; }

void resetMainBundle() { mainInfo = nil; }

}  // namespace fake
