// Address lists: copies of them, and the lists that the library itself hands out.
#pragma once

#include "tervbus.h"

#include "bus_names.h"
#include "record.h"

void address_list_free(address_entry *list);
using address_list = scoped<address_entry, address_list_free>;

// Appends an entry; false when memory is short or the value is refused.
bool address_append_unit(address_list *list, const char *unit);
bool address_append_group(address_list *list, const char *group);
bool address_append_special(address_list *list, uintptr_t number);

// A node's own addresses: unit, group, special; empty on failure.
address_list address_list_of(const bus_names &names);

// A peer as the presence callback names it: the DM-CLIENT by its special address, any other by its unit address.
address_list address_list_of_peer(const char *unit);

// A sender: its unit address, then its special address if it has one.
address_list address_list_of_sender(const char *unit);

// Can a message be sent to this entry: a known type, and a usable name?
bool address_usable(const address_entry *entry);
