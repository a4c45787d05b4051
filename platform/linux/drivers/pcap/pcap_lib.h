// libpcap, loaded when the first capture radio opens: the library links D-Bus and the
// service manager's client library, whose relocated pages a daemon without capture
// radios would carry for nothing.
#pragma once
#include <pcap/pcap.h>

#include <string>

// The functions the driver calls, by their libpcap names without "pcap_".
struct pcap_lib {
    decltype(&::pcap_open_offline) open_offline;
    decltype(&::pcap_create) create;
    decltype(&::pcap_set_snaplen) set_snaplen;
    decltype(&::pcap_set_immediate_mode) set_immediate_mode;
    decltype(&::pcap_set_timeout) set_timeout;
    decltype(&::pcap_activate) activate;
    decltype(&::pcap_statustostr) statustostr;
    decltype(&::pcap_datalink) datalink;
    decltype(&::pcap_datalink_val_to_name) datalink_val_to_name;
    decltype(&::pcap_compile) compile;
    decltype(&::pcap_setfilter) setfilter;
    decltype(&::pcap_freecode) freecode;
    decltype(&::pcap_next_ex) next_ex;
    decltype(&::pcap_dispatch) dispatch;
    decltype(&::pcap_stats) stats;
    decltype(&::pcap_geterr) geterr;
    decltype(&::pcap_breakloop) breakloop;
    decltype(&::pcap_close) close;
};

// Loads the library once; null with why when it cannot be (not installed, or a
// function missing). Never unloaded.
const pcap_lib *pcap_lib_load(std::string &why);
// The loaded library: only once a capture handle exists.
const pcap_lib &pcap_fn();
