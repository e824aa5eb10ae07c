/* GPIO pins: the part of libugpio's interface that the daemon uses, for systems that do not have
 * the library. A pin is taken through the kernel's sysfs files ("exported") or, where the kernel
 * has none, through its chip's character device ("requested"). */
#ifndef WEXD_UGPIO_H
#define WEXD_UGPIO_H

#ifdef __cplusplus
extern "C" {
#endif

/* Flags of a request. */
#define UGPIOF_DIR_IN 0x001u    /* an input; without it an output */
#define UGPIOF_INIT_HIGH 0x002u /* an output starts high; without it low */
#define UGPIOF_TRIG_FALL 0x004u /* edges that wake a poller */
#define UGPIOF_TRIG_RISE 0x008u
#define UGPIOF_DIR_CHANGEABLE 0x040u
#define UGPIOF_DIR_UNKNOWN 0x080u /* not asked for: the pin is left as it stands */
#define UGPIOF_EDGE_CHANGEABLE 0x100u

typedef struct ugpio ugpio_t;

/* Exports the pin (one that is exported already is used) or requests it, and leaves its direction
 * alone. NULL with errno set on failure. The label is for the reader of the code: sysfs has no
 * place for it, and a request bears the daemon's name. */
ugpio_t* ugpio_request(unsigned int number, const char* label);

/* As ugpio_request, then sets direction, start level and edges by the flags. */
ugpio_t* ugpio_request_one(unsigned int number, unsigned int flags, const char* label);

/* Gives the pin back, unless it was exported by somebody else, and frees the handle. NULL is
 * allowed. */
void ugpio_free(ugpio_t* pin);

/* Opens the pin's value; the descriptor, or -1 with errno set. To be called once per request. */
int ugpio_full_open(ugpio_t* pin);

/* Closes the value. NULL and closed pins are allowed. */
void ugpio_close(ugpio_t* pin);

/* The open value's descriptor, else -1. That of an exported pin polls with an error condition on
 * each chosen edge, that of a requested one is readable after it. */
int ugpio_fd(const ugpio_t* pin);

/* 0 or 1 by the pin's active-low setting; -1 with errno set on failure. */
int ugpio_get_value(ugpio_t* pin);

/* 0, or -1 with errno set on failure. */
int ugpio_set_value(ugpio_t* pin, int value);

/* Whether the line is an output now: 1, 0, or -1 when the kernel does not tell. */
int ugpio_get_direction(ugpio_t* pin);

/* Makes the line an output at that raw level, without a glitch; 0 or -1. */
int ugpio_direction_output(ugpio_t* pin, int value);

/* Inverts the meaning of the value, or not; 0, or -1 with errno set on failure. */
int ugpio_set_activelow(ugpio_t* pin, int active_low);

#ifdef __cplusplus
}
#endif

#endif
