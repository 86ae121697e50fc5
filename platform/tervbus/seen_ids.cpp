#include "seen_ids.h"

#include "record.h"

#include <algorithm>
#include <cstring>

namespace
{

void forget(seen_ids *seen, size_t index)
{
	free(seen->senders[index]);
	seen->senders[index] = seen->senders[--seen->count];
	seen->senders[seen->count] = nullptr;
}

size_t longest_silent(const seen_ids *seen)
{
	const auto end = seen->senders + seen->count;
	const auto oldest = std::min_element(
			seen->senders, end, [](const seen_sender *a, const seen_sender *b) { return a->last_ms < b->last_ms; });
	return static_cast<size_t>(oldest - seen->senders);
}

void make_room(seen_ids *seen, int64_t now_ms)
{
	if (seen->count < seen_ids_senders)
		return;
	for (size_t i = seen->count; i-- > 0;)
		if (now_ms - seen->senders[i]->last_ms > seen_ids_silence_ms)
			forget(seen, i);
	if (seen->count == seen_ids_senders_max)
		forget(seen, longest_silent(seen));
}

seen_sender *find(const seen_ids *seen, const char *name)
{
	for (size_t i = 0; i < seen->count; i++)
		if (strcmp(seen->senders[i]->name.text, name) == 0)
			return seen->senders[i];
	return nullptr;
}

uint16_t mark_of(const message_id &id)
{
	return static_cast<uint16_t>(id[0] << 8 | id[1]);
}

bool holds(const seen_sender *sender, const message_id &id)
{
	const uint16_t mark = mark_of(id);
	for (size_t i = 0; i < sender->count; i++)
		if (sender->marks[i] == mark && sender->window[i] == id)
			return true;
	return false;
}

seen_sender *add(seen_ids *seen, const char *name, int64_t now_ms)
{
	make_room(seen, now_ms);
	seen_sender *sender = record_new<seen_sender>();
	if (sender == nullptr)
		return nullptr;
	sender->name = bus_name_of(name);
	// Not zeros: those are there already, in pages that the system gives only when they are first written.
	memset(sender->window, 0xFF, sizeof(sender->window));
	memset(sender->marks, 0xFF, sizeof(sender->marks));
	seen->senders[seen->count++] = sender;
	return sender;
}

} // namespace

seen_verdict seen_ids_note(seen_ids *seen, const char *sender, const message_id &id, int64_t now_ms)
{
	seen_sender *entry = find(seen, sender);
	if (entry == nullptr)
		entry = add(seen, sender, now_ms);
	if (entry == nullptr)
		return seen_verdict::no_memory;

	entry->last_ms = now_ms;
	if (holds(entry, id))
		return seen_verdict::known;

	entry->window[entry->next] = id;
	entry->marks[entry->next] = mark_of(id);
	entry->next = (entry->next + 1) % seen_ids_window;
	entry->count = std::min(entry->count + 1, seen_ids_window);
	return seen_verdict::fresh;
}

void seen_ids_clear(seen_ids *seen)
{
	while (seen->count > 0)
		forget(seen, seen->count - 1);
}
