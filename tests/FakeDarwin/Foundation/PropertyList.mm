#include <plist/plist.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "Foundation.hpp"

namespace fake {
namespace {

struct Free {
    void operator()(char* memory) const { std::free(memory); }

    void operator()(plist_t node) const { plist_free(node); }
};

using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, Free>;
using Text = std::unique_ptr<char, Free>;

id objectOf(plist_t node) {
    if (plist_get_node_type(node) != PLIST_STRING) {
        return [[NSObject alloc] init];
    }
    char* text = nullptr;
    plist_get_string_val(node, &text);
    return stringOf(Text(text).get());
}

}  // namespace

NSDictionary<NSString*, id>* dictionaryOf(const std::string& propertyList) {
    plist_t root = nullptr;
    plist_from_memory(propertyList.data(), static_cast<std::uint32_t>(propertyList.size()), &root);
    const Node owner(root);
    if (root == nullptr || plist_get_node_type(root) != PLIST_DICT) {
        return nil;
    }
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(root, &iterator);
    const std::unique_ptr<void, decltype(&std::free)> iteratorOwner(iterator, std::free);
    std::vector<id> keys;
    std::vector<id> values;
    while (true) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(root, iterator, &key, &value);
        if (value == nullptr) {
            break;
        }
        keys.push_back(stringOf(Text(key).get()));
        values.push_back(objectOf(value));
    }
    return [NSDictionary dictionaryWithObjects:values.data() forKeys:keys.data() count:keys.size()];
}

}  // namespace fake

// Knows dictionaries alone.
@implementation NSPropertyListSerialization

+ (id)propertyListWithData:(NSData*)data
                   options:(NSPropertyListReadOptions)options
                    format:(NSPropertyListFormat*)format
                     error:(NSError**)error {
    return fake::dictionaryOf(std::string(static_cast<const char*>(data.bytes), data.length));
}

@end
