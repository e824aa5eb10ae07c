/* What the floors serve in the daemon's place: as many ports, as much told of each, at the same
 * paths. */
#ifndef WEXD_BENCH_PORTS_H
#define WEXD_BENCH_PORTS_H

enum { bench_ports = 16 };

static const char* const state_path = "/com/norv/IOControl/State";
static const char* const legacy_path = "/com/norv/Configuration/Legacy/IOControl/IOPort/0";
static const char* const bench_properties[] = {"ioport"};

#endif
