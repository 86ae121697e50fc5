#include "address.h"

#include <cstdlib>
#include <cstring>

namespace
{

// Takes the entry's list as it stands, so that an append made through the C entry point can extend it.
bool append(address_list *list, int type, const void *value)
{
	address_entry *head = list->release();
	const bool appended = tervbus_chain_address(&head, type, value) == 0;
	list->reset(head);
	return appended;
}

bool entry_has_text(uint32_t type)
{
	return type == TERVBUS_ADDRESS_UNIT || type == TERVBUS_ADDRESS_GROUP;
}

void free_entry(address_entry *entry)
{
	if (entry_has_text(entry->type))
		free(const_cast<char *>(entry->value.text)); // made by tervbus_chain_address
	free(entry);
}

address_entry *new_entry(int type, const void *value)
{
	address_entry *entry = static_cast<address_entry *>(calloc(1, sizeof(address_entry)));
	if (entry == nullptr)
		return nullptr;

	entry->type = static_cast<uint32_t>(type);
	if (type == TERVBUS_ADDRESS_SPECIAL) {
		entry->value.number = reinterpret_cast<uintptr_t>(value);
		return entry;
	}
	entry->value.text = strdup(static_cast<const char *>(value));
	if (entry->value.text == nullptr) {
		free(entry);
		return nullptr;
	}
	return entry;
}

} // namespace

extern "C" int tervbus_chain_address(address_entry **list, int type, const void *value)
{
	if (list == nullptr || type < TERVBUS_ADDRESS_SPECIAL || type > TERVBUS_ADDRESS_GROUP)
		return -1;
	if (type != TERVBUS_ADDRESS_SPECIAL && (value == nullptr || *static_cast<const char *>(value) == '\0'))
		return -1;

	address_entry *entry = new_entry(type, value);
	if (entry == nullptr)
		return -1;

	while (*list != nullptr)
		list = &(*list)->next;
	*list = entry;
	return 0;
}

extern "C" int tervbus_free_address(address_entry *list, int all)
{
	while (list != nullptr) {
		address_entry *next = list->next;
		free_entry(list);
		list = all != 0 ? next : nullptr;
	}
	return 0;
}

void address_list_free(address_entry *list)
{
	(void)tervbus_free_address(list, 1); // always succeeds
}

bool address_append_unit(address_list *list, const char *unit)
{
	return append(list, TERVBUS_ADDRESS_UNIT, unit);
}

bool address_append_group(address_list *list, const char *group)
{
	return append(list, TERVBUS_ADDRESS_GROUP, group);
}

bool address_append_special(address_list *list, uintptr_t number)
{
	return append(list, TERVBUS_ADDRESS_SPECIAL, reinterpret_cast<const void *>(number));
}

address_list address_list_of(const bus_names &names)
{
	address_list list;
	if (!address_append_unit(&list, names.unit.text))
		return nullptr;
	if (*names.group.text != '\0' && !address_append_group(&list, names.group.text))
		return nullptr;
	if (bus_name_is_dm_client(names.unit.text) && !address_append_special(&list, dm_client_special))
		return nullptr;
	return list;
}

address_list address_list_of_peer(const char *unit)
{
	address_list list;
	const bool appended = bus_name_is_dm_client(unit) ? address_append_special(&list, dm_client_special)
													  : address_append_unit(&list, unit);
	return appended ? std::move(list) : nullptr;
}

address_list address_list_of_sender(const char *unit)
{
	address_list list;
	if (!address_append_unit(&list, unit))
		return nullptr;
	if (bus_name_is_dm_client(unit) && !address_append_special(&list, dm_client_special))
		return nullptr;
	return list;
}

bool address_usable(const address_entry *entry)
{
	if (entry->type == TERVBUS_ADDRESS_SPECIAL)
		return true;
	return entry_has_text(entry->type) && entry->value.text != nullptr && bus_name_usable(entry->value.text);
}
