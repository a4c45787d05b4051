// Tracking list: the MAC addresses and OUIs the radios track, kept in memory in
// insertion order and written through to a store so that a restart finds them again.
#define LTR_UNIT "qz_ltr_node"
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "ltr_alloc.h"
#include "ltr_bytes.h"
#include "ltr_mgt.h"

ltr_track_list ltr_tl;

// The stored value is the object's first 16 bytes: the key and four zero bytes.
#define LTR_TRACK_VAL_LEN 16
static_assert(offsetof(ltr_track_obj, zero) + sizeof(ltr_track_obj::zero) == LTR_TRACK_VAL_LEN);

ltr_track_key ltr_track_key_make(const uint8_t *addr, uint32_t type)
{
    ltr_track_key k{};
    memcpy(k.addr, addr, type == LTR_TRACK_OUI ? 3 : 6);
    ltr_put_le32(k.type_le, type);
    return k;
}

uint32_t ltr_track_key_type(const ltr_track_key *key)
{
    return ltr_get_le32(key->type_le);
}

const char *ltr_track_type_name(uint32_t type)
{
    switch (type) {
    case LTR_TRACK_MAC:
        return "mac";
    case LTR_TRACK_OUI:
        return "oui";
    default:
        return "n/a";
    }
}

int ltr_track_list_init(void)
{
    ltr_tlist_init(ltr_tl.obj_list);
    ltr_tl.obj_cnt = 0;
    ltr_tl.max_obj = LTR_TRACK_OBJ_MAX;
    if (mkdir(LTR_TRACK_DB_DIR, 0777) < 0 && errno != EEXIST) {
        qz_log(0, 4, "create directory /tmp/db failed!\n");
        return -1;
    }
    ltr_tl.db = qz_db_open(LTR_TRACK_DB_PATH);
    if (!ltr_tl.db) {
        qz_log(0, 4, "open database failed: %s\n", LTR_TRACK_DB_PATH);
        return -1;
    }
    qz_db_foreach(ltr_tl.db, ltr_track_list_load_cb);
    return 0;
}

void ltr_track_list_load_cb(qz_db_t *db, const void *key, int klen)
{
    ltr_track_obj *obj = ltr_new<ltr_track_obj>();
    if (!obj) {
        qz_log(0, 4, "no enough memory!\n");
        return;
    }
    // Fetch into a buffer as large as any value the store hands out, so that a record
    // longer than ours cannot overrun the object; keep only our 16 bytes.
    uint8_t val[QZ_DB_VALUE_MAX] = {};
    if (qz_db_fetch_bykey(db, key, klen, val) < 0) {
        qz_log(0, 4, "fetch ltr track failed!\n");
        ltr_delete(obj);
        return;
    }
    memcpy((void *)obj, val, LTR_TRACK_VAL_LEN);
    ltr_tlist_append(ltr_tl.obj_list, obj, &ltr_track_obj::link);
    ltr_tl.obj_cnt++;
}

ltr_track_obj *ltr_track_obj_find(const ltr_track_key *key)
{
    LTR_CHECK(key != LTR_NULL);
    for (ltr_track_obj *o = ltr_tl.obj_list.first; o; o = o->link.next)
        if (memcmp(&o->key, key, sizeof(*key)) == 0)
            return o;
    return nullptr;
}

int ltr_track_obj_add(const ltr_track_key *key)
{
    LTR_CHECK(key != LTR_NULL);
    // The limit comes first: at the limit even a listed object is refused.
    if (ltr_tl.obj_cnt >= ltr_tl.max_obj) {
        qz_log(0, 4, "The track objects reach max size\n");
        return -1;
    }
    if (ltr_track_obj_find(key))
        return 0;
    ltr_track_obj *obj = ltr_new<ltr_track_obj>();
    if (!obj) {
        qz_log(0, 4, "no enough memory.\n");
        return -1;
    }
    obj->key = *key;
    ltr_tlist_append(ltr_tl.obj_list, obj, &ltr_track_obj::link);
    ltr_tl.obj_cnt++;
    // A failed write leaves the object listed: memory is what the running process
    // goes by; the store only matters at the next start.
    if (qz_db_store(ltr_tl.db, &obj->key, sizeof(obj->key), obj, LTR_TRACK_VAL_LEN) < 0)
        qz_log(0, 4, "store ltr track obj (%m, %s) failed.\n", key->addr,
               ltr_track_type_name(ltr_track_key_type(key)));
    return 0;
}

int ltr_track_obj_del(const ltr_track_key *key)
{
    LTR_CHECK(key != LTR_NULL);
    ltr_track_obj *obj = ltr_track_obj_find(key);
    if (!obj)
        return 0;
    ltr_tlist_unlink(ltr_tl.obj_list, obj, &ltr_track_obj::link);
    ltr_tl.obj_cnt--;
    ltr_delete(obj);
    ltr_track_obj_unstore(key);
    return 0;
}

int ltr_track_obj_unstore(const ltr_track_key *key)
{
    LTR_CHECK(key != LTR_NULL);
    if (qz_db_delete(ltr_tl.db, key, sizeof(*key)) < 0) {
        qz_log(0, 4, "del ltr track obj (%m, %s) failed.\n", key->addr,
               ltr_track_type_name(ltr_track_key_type(key)));
        return -1;
    }
    return 0;
}

void ltr_track_list_cleanup(void)
{
    while (ltr_track_obj *obj = ltr_tl.obj_list.first) {
        ltr_tlist_unlink(ltr_tl.obj_list, obj, &ltr_track_obj::link);
        ltr_track_obj_unstore(&obj->key);
        ltr_tl.obj_cnt--;
        ltr_delete(obj);
    }
    if (ltr_tl.obj_cnt != 0) {
        qz_log(0, 4, "node table element counter check failed.\n");
        ltr_tl.obj_cnt = 0;
    }
}

void ltr_track_list_foreach(ltr_track_walk_fn f, void *arg)
{
    LTR_CHECK(f != LTR_NULL);
    // The next link is read after f returns: f must not remove its object.
    for (ltr_track_obj *o = ltr_tl.obj_list.first; o; o = o->link.next)
        f(arg, o);
}

void ltr_track_list_foreach_safe(ltr_track_walk_fn f, void *arg)
{
    LTR_CHECK(f != LTR_NULL);
    for (ltr_track_obj *o = ltr_tl.obj_list.first, *next; o; o = next) {
        next = o->link.next;
        f(arg, o);
    }
}

int ltr_track_list_match(const uint8_t *macaddr)
{
    LTR_CHECK(macaddr != LTR_NULL);
    for (ltr_track_obj *o = ltr_tl.obj_list.first; o; o = o->link.next) {
        switch (ltr_track_key_type(&o->key)) {
        case LTR_TRACK_MAC:
            if (memcmp(o->key.addr, macaddr, 6) == 0)
                return 1;
            break;
        case LTR_TRACK_OUI:
            if (memcmp(o->key.addr, macaddr, 3) == 0)
                return 1;
            break;
        default:
            break;
        }
    }
    return 0;
}
