// The device's configuration-event library, as far as the daemon needs it.
//
// This header is the contract: a device maker implements these operations against the library of
// the device and points the build at it (docs/platform-libraries.md). The implementation shipped
// here keeps what is declared in memory and logs each declare, change and undeclare as one line.
//
// All functions are called from the main thread. Strings are copied.
#pragma once

#include "platform/event-library.h"

/// A source of configuration events.
struct NvConfigEvent;

enum NvConfigEventError { NV_CONFIG_EVENT_ERROR_NOT_DECLARED, NV_CONFIG_EVENT_ERROR_DECLARED };
GQuark nv_config_event_error_quark();

/// A handle for the named producer; `producer` stays the caller's and must outlive the handle.
[[nodiscard]] NvConfigEvent* nv_config_event_new(const char* producer_name,
                                                 NvEventProducer* producer);
/// Frees a handle; NULL is allowed.
void nv_config_event_free(NvConfigEvent* handle);

/// Declares that the object at `path` has configuration of interface `interface_name`, grouped
/// under `group`; false with `error` when it is declared already.
[[nodiscard]] bool nv_config_event_declare(NvConfigEvent* handle, const char* interface_name,
                                           const char* path, const char* group, GError** error);
/// Withdraws that; false when it was not declared.
[[nodiscard]] bool nv_config_event_undeclare(NvConfigEvent* handle, const char* interface_name,
                                             const char* path, const char* group);

/// An empty change text; freed with g_string_free.
[[nodiscard]] GString* nv_config_event_change_new();
/// Appends one name=value pair, escaped so that it can be told apart from its neighbours.
void nv_config_event_change_append(GString* change, const char* name, const char* value);

/// Sends a change of a declared object; the meaning of `kind` is the library's. False with `error`
/// when the object was not declared.
[[nodiscard]] bool nv_config_event_send(NvConfigEvent* handle, const char* interface_name,
                                        const char* path, const char* group, const char* object,
                                        guint kind, const GString* change, GError** error);
