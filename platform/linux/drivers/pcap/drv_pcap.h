// The pcap driver: radios fed by 802.11 frames with radiotap headers.
#pragma once
#include <string>

#include "rt_driver.h"

extern const rt_driver_ops rt_driver_pcap;

// The driver's own keys of a [[radio]] table: exactly one of capture and monitor.
struct pcap_radio_conf {
    std::string capture;       // pcap/pcapng file or FIFO, replayed in capture time
    std::string monitor;       // live monitor-mode interface
    double speed = 1;          // replay speed, 1 = real time
    bool loop = false;         // replay the file again at its end
    bool ignore_local = false; // drop locally administered (randomised) addresses
};

// Whether the radio's capture has ended (a file read to its end, or an error).
bool pcap_radio_done(rt_radio *r);
