#include <filesystem>
#include <fstream>
#include <iterator>

#include "../FakeDarwin.hpp"
#include "../FakeFoundation.hpp"
#include "Foundation.hpp"

namespace {

NSDictionary<NSString*, id>* __strong& mainInfo() {
    static NSDictionary<NSString*, id>* set = nil;
    return set;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A bundle without an Info.plist that can be read has an empty dictionary (-infoDictionary).
NSDictionary<NSString*, id>* infoIn(const std::string& propertyList) {
    NSDictionary<NSString*, id>* info = fake::dictionaryOf(propertyList);
    return info != nil ? info : @{};
}

}  // namespace

@implementation NSBundle {
    // Of another bundle than the main one: its folder, and the one with its Info.plist.
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
    if (!_isMain) {
        return infoIn(contentOf(_contents + "/Info.plist"));
    }
    return mainInfo() != nil ? mainInfo() : infoIn(fake::world().mainInfo);
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

namespace fake {

void setMainInfo(NSDictionary<NSString*, id>* info) { mainInfo() = info; }

void resetMainBundle() { mainInfo() = nil; }

}  // namespace fake
