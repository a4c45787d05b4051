// Life of the runtime's services: each started once on its own thread, stopped in
// reverse order of start.
#pragma once

// Services started by qz_event_init (each idempotent).
void rt_srvchan_start(); // server channel (also started by the first send)
void rt_owner_start();   // owner service; also opens neighbour messaging

// Records a service whose thread has just started; stop ends and joins that thread
// (idempotent, harmless when it never started). Also arms the exit hook.
void rt_life_started(const char *name, void (*stop)());
// Requests the stop, then stops the recorded services in reverse order of start. Run
// by the shutdown before the radios are released, and at process exit.
void rt_life_stop_all();
// Stop functions of services that others start.
void rt_timer_service_stop();
void rt_signals_stop();
void rt_owner_stop();
