// MAC addresses and OUIs as text, for the tools, the configuration and the world file.
// Accepted: aa:bb:cc:dd:ee:ff, aa-bb-cc-dd-ee-ff or aabb.ccdd.eeff; OUIs aa:bb:cc,
// aa-bb-cc or aabb.cc; either case, two digits a byte. Written: aa:bb:cc:dd:ee:ff.
#pragma once
#include <stdint.h>

#include <string>
#include <string_view>

bool ltr_mac_parse(std::string_view s, uint8_t mac[6]);
bool ltr_oui_parse(std::string_view s, uint8_t oui[3]);
std::string ltr_mac_text(const uint8_t *mac);
std::string ltr_oui_text(const uint8_t *oui);
// A group (multicast or broadcast) address, or an OUI that only such addresses have:
// never a station.
inline bool ltr_mac_is_group(const uint8_t *mac_or_oui) { return mac_or_oui[0] & 1; }
