// The part of acl(3), Darwin's access-control lists, that the macOS layer uses.
#pragma once

typedef struct _acl* acl_t;
typedef struct _acl_entry* acl_entry_t;

typedef enum { ACL_UNDEFINED_TAG = 0, ACL_EXTENDED_ALLOW = 1, ACL_EXTENDED_DENY = 2 } acl_tag_t;

typedef enum { ACL_TYPE_EXTENDED = 0x100 } acl_type_t;

typedef enum { ACL_FIRST_ENTRY = 0, ACL_NEXT_ENTRY = -1 } acl_entry_id_t;

extern "C" {
acl_t acl_get_link_np(const char* path, acl_type_t type);
int acl_get_entry(acl_t list, int which, acl_entry_t* entry);
int acl_get_tag_type(acl_entry_t entry, acl_tag_t* tag);
int acl_free(void* list);
}
