"""The access point's environment changing under it: the location server going away
and coming back, a radio interface going down and up."""
import subprocess
import time

import systest
from systest import SiteTest, ltrsite

STA = "02:cc:00:00:00:01"


class Environment(SiteTest):
    aps = 1

    def test_reports_queued_during_a_server_outage_arrive_in_order(self):
        site = self.make_site()
        site.start(interval=1)
        ap = site.aps[0]
        ap.ctl("location-tracking", "rssi-threshold", "0")
        ap.radio(f"assoc {ap.radios[0]} {STA} 2412")
        srv = site.server
        mark = srv.mark()
        srv.send(f"start ap1 mac={STA}")
        srv.wait_for(lambda m: m.get("op") == "ack", 10, mark, "the start ack")
        # The station's RSSI falls by one dB a second, so each report is newer than the last.
        rssi = [-30]

        def step():
            rssi[0] -= 1
            ap.radio(f"hear {ap.radios[0]} {STA} {rssi[0]} 1 2412")

        step()
        srv.wait_for(lambda m: m.get("op") == "rssi report", 10, mark, "a first report")
        srv.close()
        for _ in range(5):
            step()
            time.sleep(1)
        site.server = None
        site.start_server()
        for _ in range(3):
            step()
            time.sleep(1)
        got = [st["readings"][0]["rssi"] for m in site.server.since(0)
               if m.get("op") == "rssi report" for st in m["stations"] if st["mac"] == STA]
        self.assertGreaterEqual(len(got), 5, got)
        self.assertEqual(got, sorted(got, reverse=True), got)
        # The values heard while the server was away are among them.
        self.assertTrue(any(v <= -33 for v in got[:4]), got)

    def test_radio_coming_up_gets_tracking_applied_again(self):
        site = self.make_site()
        site.start(interval=1)
        ap = site.aps[0]
        ap.ctl("debug", "location-tracking", "event")
        ap.ctl("debug", "location-tracking", "info")
        ap.ctl("location-tracking", "mac", STA)
        radio = ap.radios[0]
        subprocess.run(["ip", "link", "set", radio, "down"], check=True)
        time.sleep(0.5)
        subprocess.run(["ip", "link", "set", radio, "up"], check=True)
        ltrsite.wait_until(lambda: "handle radio up event: access 1" in ap.log_tail(200), 10,
                           "the radio-up handling in the log")
        state = ap.radio(f"state {radio}")
        self.assertIn("track 1", state)
        self.assertIn(f"obj mac {STA}", state)


if __name__ == "__main__":
    systest.main(__file__)
