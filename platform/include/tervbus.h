/* tervbus.h: the message-bus client library, as the agent and every other node see it.
 *
 * The records and the operations are a binary interface: names, order and types stay as they are, because
 * programs built against one implementation run on another. A call returns 0 for success and a negative
 * number for failure; on failure no output is written. All callbacks run on the library's own thread. Every
 * operation may be called from any thread and from inside a callback, tervbus_fini_ll excepted, which joins
 * that thread.
 */
#ifndef TERVBUS_H
#define TERVBUS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Types of an address entry. */
enum {
	TERVBUS_ADDRESS_SPECIAL = 1, /* value is a number; 0 is the DM-CLIENT */
	TERVBUS_ADDRESS_UNIT = 2,    /* value is a text: a unit's own name */
	TERVBUS_ADDRESS_GROUP = 3    /* value is a text: a group's name */
};

/* One entry of an address list; the list ends with a NULL next. */
typedef struct address_entry {
	uint32_t type;
	union {
		const char *text;
		uintptr_t number;
	} value;
	struct address_entry *next;
} address_entry;

/* One certificate or key, as read from its file: length counts the zero byte after the last byte of the file.
 * encoding is 2, PEM. */
typedef struct tervbus_buffer {
	char *data;
	uint32_t length;
	uint32_t unused;
	uint32_t encoding;
} tervbus_buffer;

/* A node's X.509 identity. chain and trust are lists of buffers ended by NULL: the node's certificate first
 * in the one, the CA's certificate first in the other. */
typedef struct tervbus_identity {
	uint32_t type; /* 1 = X.509; 0 = none */
	tervbus_buffer **chain;
	tervbus_buffer *private_key;
	void *unused;
	tervbus_buffer **trust;
	void *released; /* never set; freed with the identity by its owner */
} tervbus_identity;

/* One message. An incoming one, its data and its source list are the library's and end when on_message
 * returns. A sent one belongs to the library from a successful tervbus_send_message to on_delivered;
 * content_type is borrowed until then. The library sets id in tervbus_send_message: 20 bits, never 0. */
typedef struct tervbus_message {
	const char *content_type;
	address_entry *destination;
	address_entry *source;
	void *unused3;
	void *unused4;
	char *data;
	uint32_t length; /* bytes, the final zero byte included */
	void *unused7;
	uint32_t id;
	void *unused9;
} tervbus_message;

/* Conditions told by on_connection_status. */
enum {
	TERVBUS_CONDITION_RUNNING = 0,             /* connected and subscribed */
	TERVBUS_CONDITION_RESOLUTION_FAILED = 1,   /* the broker's name does not resolve */
	TERVBUS_CONDITION_CONNECTION_FAILED = 2,   /* no TCP or TLS to the broker, an unverified broker included */
	TERVBUS_CONDITION_REGISTRATION_FAILED = 3, /* refused by the broker: certificate, authorisation, subscription */
	TERVBUS_CONDITION_CONNECTION_BROKE = 4,    /* the connection was lost */
	TERVBUS_CONDITION_CONNECTION_ABORTED = 5,  /* thrown out by the broker */
	TERVBUS_CONDITION_STOPPED = 6,             /* the client has been stopped */
	TERVBUS_CONDITION_START = 7                /* once per successful tervbus_init_client */
};

typedef struct tervbus_client tervbus_client;
struct tervbus_client {
	uint32_t mode; /* 1 */
	tervbus_identity identity;
	/* The client has stopped: comes once, last. From its entry on the library touches neither this record nor
	 * what it points to. */
	void (*on_release)(tervbus_client *);
	/* Peers that came and peers that went; the lists are the library's and end with the call. */
	void (*on_presence)(tervbus_client *, address_entry *connected, address_entry *disconnected);
	void (*on_connection_status)(tervbus_client *, int condition);
	/* The end of an accepted send: ok is not 0 when the broker has taken it for every destination. */
	void (*on_delivered)(tervbus_client *, tervbus_message *, void *spare, int ok);
	void (*on_message)(tervbus_client *, tervbus_message *);
	void *unused12;
	void *unused13;
	void *user;        /* the node's own; the library does not touch it */
	void *library[17]; /* the library's own */
};

typedef struct tervbus_setup {
	void *unused0, *unused1, *unused2;
	void (*debug)(const char *text); /* may be NULL */
	void *unused4;
} tervbus_setup;

/* Starts the library for this process; the debug function may be called from now until tervbus_fini_ll
 * returns. */
int tervbus_init_ll(tervbus_setup *);

/* Ends the library: joins its thread. */
int tervbus_fini_ll(void);

/* Starts the client and returns at once: the network is never waited for. The URL is "tcp://host:port". Fails
 * for an URL or an identity that cannot be used, without a tervbus_init_ll before it, and for a record that has been
 * started already and not been released yet; no callback comes from inside the call. */
int tervbus_init_client(tervbus_client *, const char *broker_url);

/* Begins to stop the client, in any state, and may be called again. A client that was started gets
 * on_release; of one that was not, nothing is touched after the return. */
int tervbus_stop_client(tervbus_client *);

/* Makes a list of the identity's own addresses: the unit address (the certificate's CN), the group (its first
 * OU), the special address if it has one. The caller releases it with tervbus_free_address(list, 1). */
int tervbus_get_identity_data(tervbus_identity *, address_entry **addresses, int, int);

/* Appends an entry at the tail of the list. The text of a unit or a group is copied; NULL and the empty text
 * fail. For a special address, value is the number itself. */
int tervbus_chain_address(address_entry **list, int type, const void *value);

/* Frees the whole list with its texts (all not 0), or its first entry only (all 0). NULL is accepted. */
int tervbus_free_address(address_entry *list, int all);

/* Hands a message over for sending to each entry of its destination list. On success the message is the
 * library's until on_delivered, which comes exactly once, perhaps before this call has returned; on failure
 * it stays the caller's. */
int tervbus_send_message(tervbus_client *, tervbus_message *, int flags);

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(address_entry) == 12, "three words");
static_assert(sizeof(tervbus_buffer) == 16, "four words");
static_assert(sizeof(tervbus_identity) == 24, "six words");
static_assert(sizeof(tervbus_setup) == 20, "five words");
static_assert(offsetof(tervbus_setup, debug) == 3 * 4, "word 3");
static_assert(sizeof(tervbus_message) == 40, "ten words");
static_assert(offsetof(tervbus_message, destination) == 1 * 4, "word 1");
static_assert(offsetof(tervbus_message, source) == 2 * 4, "word 2");
static_assert(offsetof(tervbus_message, data) == 5 * 4, "word 5");
static_assert(offsetof(tervbus_message, length) == 6 * 4, "word 6");
static_assert(offsetof(tervbus_message, id) == 8 * 4, "word 8");
static_assert(sizeof(tervbus_client) == 128, "32 words");
static_assert(offsetof(tervbus_client, identity) == 1 * 4, "word 1");
static_assert(offsetof(tervbus_client, on_release) == 7 * 4, "word 7");
static_assert(offsetof(tervbus_client, on_presence) == 8 * 4, "word 8");
static_assert(offsetof(tervbus_client, on_connection_status) == 9 * 4, "word 9");
static_assert(offsetof(tervbus_client, on_delivered) == 10 * 4, "word 10");
static_assert(offsetof(tervbus_client, on_message) == 11 * 4, "word 11");
static_assert(offsetof(tervbus_client, user) == 14 * 4, "word 14");
static_assert(offsetof(tervbus_client, library) == 15 * 4, "word 15");
#endif

#ifdef __cplusplus
}
#endif

#endif
