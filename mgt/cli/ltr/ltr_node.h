// Station table (stations and their per-reporter readings) and the tracking list
// (MAC addresses and OUIs, written through to a store). No locking here: every caller
// holds the manager lock.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "ltr_list.h"
#include "qz_db.h"

#define LTR_STA_HASH_SIZE 32
#define LTR_RSSI_MAX 64
#define LTR_TRACK_OBJ_MAX 512
#define LTR_TRACK_DB_DIR "/tmp/db"
#define LTR_TRACK_DB_PATH "/tmp/db/ltr_track_list.db"

// One reading, as stored and handed around. Host order.
struct ltr_rssi_data {
    uint8_t ap_mac[6];
    uint16_t chan_freq;
    int8_t rssi;
    uint8_t active;
} __attribute__((packed));
static_assert(sizeof(ltr_rssi_data) == 10);
static_assert(offsetof(ltr_rssi_data, chan_freq) == 6);
static_assert(offsetof(ltr_rssi_data, rssi) == 8);
static_assert(offsetof(ltr_rssi_data, active) == 9);

struct ltr_sta;
struct ltr_sta_tbl;

// Two loads and a compare: the station and reading look-ups run for every record.
inline bool ltr_mac_eq(const uint8_t *a, const uint8_t *b)
{
    uint32_t a4, b4;
    uint16_t a2, b2;
    __builtin_memcpy(&a4, a, 4), __builtin_memcpy(&b4, b, 4);
    __builtin_memcpy(&a2, a + 4, 2), __builtin_memcpy(&b2, b + 4, 2);
    return ((a4 ^ b4) | (uint32_t)(a2 ^ b2)) == 0;
}

// The record's fields in their documented order and widths; its pool number sits in
// the tail padding after the packed reading, so it costs no space: 56 bytes on a 64-bit
// target, 44 on a 32-bit one.
struct ltr_rssi_entry {
    ltr_link<ltr_rssi_entry> link; // in sta->rssi_list, newest first
    ltr_sta *sta;
    int32_t life_cnt;
    int32_t life_start;
    int8_t last_pwr_rpt;
    uint32_t ni_local; // 1: heard by this AP's radios; 0: relayed
    ltr_rssi_data rssi_data;
    uint32_t no; // its place in the table's pool
};
static_assert(offsetof(ltr_rssi_entry, sta) == 2 * sizeof(void *));
static_assert(offsetof(ltr_rssi_entry, life_cnt) == 3 * sizeof(void *));
static_assert(offsetof(ltr_rssi_entry, last_pwr_rpt) == 3 * sizeof(void *) + 8);
static_assert(offsetof(ltr_rssi_entry, ni_local) == 3 * sizeof(void *) + 12);
static_assert(offsetof(ltr_rssi_entry, rssi_data) == 3 * sizeof(void *) + 16);
static_assert(sizeof(ltr_rssi_entry) == 3 * sizeof(void *) + 32);

// The readings live in chunks owned by the station table: no allocator header per
// reading, and a reading is known by a 32-bit number (chunk, slot), which is what the
// index holds. A chunk goes when its last reading does.
#define LTR_RSSI_CHUNK 64 // one word of free bits
struct ltr_rssi_chunk {
    uint64_t free; // bit i: e[i] is free
    ltr_link<ltr_rssi_chunk> plink; // in the pool's list of chunks with a free slot
    uint32_t no;
    ltr_rssi_entry e[LTR_RSSI_CHUNK];
};

struct ltr_rssi_pool {
    ltr_rssi_chunk **chunk; // by chunk number; null: none
    uint32_t n_chunk;       // length of chunk[]
    uint32_t count;         // readings held
    ltr_rssi_chunk *partial; // chunks with a free slot
};

struct ltr_sta {
    ltr_link<ltr_sta> list;  // in sta_tbl->sta_list, insertion order
    ltr_link<ltr_sta> hlink; // in its hash bucket
    ltr_sta_tbl *sta_tbl;
    uint8_t macaddr[6];
    ltr_rssi_entry *rssi_list;
    // What the index finds under sta_tbl->self_mac (this AP's own reading), or null: the
    // cycle looks its own reading up for every record, a load is cheaper than a probe.
    ltr_rssi_entry *self;
    int32_t max_rssi_cnt;
    int32_t rssi_cnt;
    uint32_t ni_owner_ip; // network order; 0 = unknown
    uint16_t rpt_age;
    uint16_t sup_cnt;
    uint32_t need_report;
};

// Every station's newest reading per reporter, by (station, reporter MAC): a record or a
// relay finds its reading without walking the station's up to 64 readings. Open
// addressing with linear probing; sized to the count (not a power of two), freed when
// empty.
struct ltr_rssi_idx {
    uint32_t *slot; // a reading's pool number + 1; 0: free
    uint32_t size;
    uint32_t count;
    uint32_t shadowed; // readings behind a newer one of the same reporter: none, no walk
};

struct ltr_sta_tbl {
    ltr_tlist<ltr_sta> sta_list;
    ltr_sta *hash[LTR_STA_HASH_SIZE];
    int32_t max_sta;
    int32_t sta_cnt;
    ltr_rssi_idx rssi_idx;
    ltr_rssi_pool rssi_pool;
    uint8_t self_mac[6]; // the MAC the stations' self links are for (mgt.my_mac)
};

void ltr_sta_tbl_init(ltr_sta_tbl *sta_tbl, uint32_t capacity);
void ltr_sta_tbl_flush(ltr_sta_tbl *sta_tbl);
ltr_sta *ltr_sta_find(ltr_sta_tbl *sta_tbl, const uint8_t *macaddr);
ltr_sta *ltr_sta_add(ltr_sta_tbl *sta_tbl, const uint8_t *macaddr);
void ltr_sta_del(ltr_sta *sta);
void ltr_sta_del_bymac(ltr_sta_tbl *sta_tbl, const uint8_t *macaddr);
ltr_rssi_entry *ltr_rssi_find(ltr_sta *sta, const uint8_t *macaddr);
ltr_rssi_entry *ltr_rssi_add(ltr_sta *sta, const ltr_rssi_data *rssi_data);
void ltr_rssi_del(ltr_rssi_entry *rssi_entry);
void ltr_rssi_flush(ltr_sta *sta);

// The index and the pool alone (the functions above keep them right).
ltr_rssi_entry *ltr_rssi_idx_find(const ltr_sta_tbl *t, const ltr_sta *sta, const uint8_t *macaddr);
// e becomes what its (station, reporter) finds. False when the index is full and cannot
// grow (out of memory): nothing changed.
bool ltr_rssi_idx_put(ltr_sta_tbl *t, ltr_rssi_entry *e);
// e, which its key finds, is going: heir (an older reading under the same key) or
// nothing takes its place.
void ltr_rssi_idx_drop(ltr_sta_tbl *t, ltr_rssi_entry *e, ltr_rssi_entry *heir);
// A zero-filled reading with its number set, or null (out of memory, or the allocation
// ltr_alloc_fail_at picks).
ltr_rssi_entry *ltr_rssi_pool_get(ltr_rssi_pool *p);
void ltr_rssi_pool_put(ltr_rssi_pool *p, ltr_rssi_entry *e);
inline ltr_rssi_entry *ltr_rssi_pool_at(const ltr_rssi_pool *p, uint32_t no)
{
    return &p->chunk[no / LTR_RSSI_CHUNK]->e[no % LTR_RSSI_CHUNK];
}

// Tracking list.
#define LTR_TRACK_MAC 0u
#define LTR_TRACK_OUI 1u

// 12-byte key: address (an OUI: 3 bytes then 3 zero bytes), two zero bytes, type as a
// little-endian u32. Compared over all 12 bytes.
struct ltr_track_key {
    uint8_t addr[6];
    uint8_t zero[2];
    uint8_t type_le[4];
};
static_assert(sizeof(ltr_track_key) == 12);

ltr_track_key ltr_track_key_make(const uint8_t *addr, uint32_t type);
uint32_t ltr_track_key_type(const ltr_track_key *key);
const char *ltr_track_type_name(uint32_t type); // "mac", "oui", "n/a"

struct ltr_track_obj {
    ltr_track_key key;
    uint8_t zero[4]; // key + these 4 bytes are the stored value
    ltr_link<ltr_track_obj> link;
};
static_assert(offsetof(ltr_track_obj, link) == 16);

struct ltr_track_list {
    ltr_tlist<ltr_track_obj> obj_list;
    int32_t max_obj;
    int32_t obj_cnt;
    qz_db_t *db;
};

extern ltr_track_list ltr_tl;

typedef void (*ltr_track_walk_fn)(void *arg, ltr_track_obj *obj);

int ltr_track_list_init(void);
void ltr_track_list_load_cb(qz_db_t *db, const void *key, int klen);
ltr_track_obj *ltr_track_obj_find(const ltr_track_key *key);
int ltr_track_obj_add(const ltr_track_key *key);
int ltr_track_obj_del(const ltr_track_key *key);
int ltr_track_obj_unstore(const ltr_track_key *key);
void ltr_track_list_cleanup(void);
void ltr_track_list_foreach(ltr_track_walk_fn f, void *arg);
void ltr_track_list_foreach_safe(ltr_track_walk_fn f, void *arg);
int ltr_track_list_match(const uint8_t *macaddr);
