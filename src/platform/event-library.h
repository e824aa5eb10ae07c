// The device's event library, as far as the daemon needs it.
//
// This header is the contract: a device maker implements these operations against the library of
// the device and points the build at it (docs/platform-libraries.md). The implementation shipped
// here keeps everything in memory and logs what it is told, one line per declare, undeclare and
// send.
//
// What callers rely on:
// - All functions may be called from any thread.
// - A fill callback is never called from inside a call made here; it runs from the main loop.
// - Handles are owned by the caller and freed with the matching free function; freeing NULL is
//   allowed. Strings are copied.
#pragma once

#include <glib.h>

struct NvEventProducer;
struct NvEventDeclaration;
struct NvEvent;
/// The keys and values inside a declaration or an event; borrowed from it.
struct NvEventInspectable;

/// Value types; the numbers are the library's codes.
enum NvEventType : guint {
  NV_EVENT_INT = 1,
  NV_EVENT_BOOL = 2,
  NV_EVENT_DOUBLE = 3,
  NV_EVENT_STRING = 4,
};

enum NvEventError {
  NV_EVENT_ERROR_UNKNOWN_ID,
  NV_EVENT_ERROR_UNKNOWN_KEY,
  NV_EVENT_ERROR_WRONG_TYPE,
  NV_EVENT_ERROR_NOT_COMPLETE,
};
GQuark nv_event_error_quark();

/// Fills the property's current values into an event, for whoever asks for the present state.
using NvEventFill = void (*)(NvEvent* event, gpointer user_data);

/// A producer of events; `name` identifies it to the event system.
[[nodiscard]] NvEventProducer* nv_event_producer_new(const char* name);
/// The full-form constructor; flags and context are reserved and given as zero.
[[nodiscard]] NvEventProducer* nv_event_producer_new_full(const char* name, guint flags,
                                                          gpointer context);
void nv_event_producer_free(NvEventProducer* producer);

/// An empty declaration; `type_name` names it in diagnostics.
[[nodiscard]] NvEventDeclaration* nv_event_declaration_new(const char* type_name);
/// A declaration of a type that the event system knows, or NULL.
[[nodiscard]] NvEventDeclaration* nv_event_declaration_new_from_type(const char* type_name);
void nv_event_declaration_free(NvEventDeclaration* declaration);
/// Adds a key with a fixed value, written as text in the form of its type.
[[nodiscard]] bool nv_event_declaration_add_key_value(NvEventDeclaration* declaration,
                                                      const char* key, const char* value,
                                                      NvEventType type);
/// Adds a key whose value each event brings.
[[nodiscard]] bool nv_event_declaration_add_key(NvEventDeclaration* declaration, const char* key,
                                                NvEventType type);
/// Display names of a key and of its value; either may be NULL.
[[nodiscard]] bool nv_event_declaration_set_nice_names(NvEventDeclaration* declaration,
                                                       const char* key, const char* key_nice_name,
                                                       const char* value_nice_name);
[[nodiscard]] bool nv_event_declaration_set_name_space(NvEventDeclaration* declaration,
                                                       const char* key, const char* name_space);
[[nodiscard]] bool nv_event_declaration_tag_key(NvEventDeclaration* declaration, const char* key,
                                                const char* tag);
/// Makes the key the event's property (a state rather than an occurrence). `fill` may be NULL.
[[nodiscard]] bool nv_event_declaration_set_property(NvEventDeclaration* declaration,
                                                     const char* key, NvEventFill fill,
                                                     gpointer user_data);
[[nodiscard]] bool nv_event_declaration_is_property(const NvEventDeclaration* declaration);
[[nodiscard]] NvEventInspectable*
nv_event_declaration_get_inspectable(NvEventDeclaration* declaration);

/// Sets display names on a key; false when the key is unknown.
[[nodiscard]] bool nv_event_inspectable_set_nice_names(NvEventInspectable* inspectable,
                                                       const char* key, const char* key_nice_name,
                                                       const char* value_nice_name);
/// Sets a value given as text; false when the key is unknown, of another type, or the text is not
/// of that type.
[[nodiscard]] bool nv_event_inspectable_set_value(NvEventInspectable* inspectable, const char* key,
                                                  const char* value, NvEventType type);

/// Declares and returns an id above 0; 0 on failure. Takes no ownership.
guint nv_event_producer_declare(NvEventProducer* producer, const NvEventDeclaration* declaration,
                                GError** error);
/// Withdraws a declaration; false when the id is unknown.
[[nodiscard]] bool nv_event_producer_undeclare(NvEventProducer* producer, guint id, GError** error);
/// An event for a declared id, with the declaration's fixed values; NULL when the id is unknown.
[[nodiscard]] NvEvent* nv_event_producer_prepare(NvEventProducer* producer, guint id,
                                                 GError** error);
/// Sends; every key must have a value. Takes no ownership.
[[nodiscard]] bool nv_event_producer_send(NvEventProducer* producer, const NvEvent* event,
                                          GError** error);

void nv_event_free(NvEvent* event);
[[nodiscard]] NvEventInspectable* nv_event_get_inspectable(NvEvent* event);
[[nodiscard]] bool nv_event_set_bool(NvEvent* event, const char* key, bool value);
[[nodiscard]] bool nv_event_set_int(NvEvent* event, const char* key, gint value);
[[nodiscard]] bool nv_event_set_string(NvEvent* event, const char* key, const char* value);
