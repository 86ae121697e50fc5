// The table is never destroyed, since threads may still use their handles while the process exits; it holds no memory
// when no channel is open.
#include "handle_table.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <type_traits>

#include "guards.h"
#include "uds_log.h"

static constexpr size_t first_capacity = 8;

struct table_entry {
	int handle;
	bool has_ended; // unknown to new callers; stays until the last user has left
	unsigned users; // calls inside
	channel_driver *driver;
};

struct handle_table {
	pthread_mutex_t lock; // all below
	int last;
	table_entry *entries; // owned, in order of their handles
	size_t count;
	size_t capacity;
};
static_assert(std::is_trivially_copyable_v<handle_table> && std::is_trivially_copyable_v<table_entry>);

static handle_table table = {PTHREAD_MUTEX_INITIALIZER, 0, nullptr, 0, 0};

// From here to the entry points, `lock` is held. An entry stays where it is for as long.

static table_entry *find_entry(int handle)
{
	table_entry *end = table.entries + table.count;
	table_entry *found = std::lower_bound(
			table.entries, end, handle, [](const table_entry &entry, int wanted) { return entry.handle < wanted; });
	return found != end && found->handle == handle ? found : nullptr;
}

static table_entry *find_open_entry(int handle)
{
	table_entry *found = find_entry(handle);
	return found != nullptr && !found->has_ended ? found : nullptr;
}

static bool has_room(void)
{
	if (table.last == INT_MAX)
		return false;
	if (table.count < table.capacity)
		return true;
	const size_t capacity = table.capacity == 0 ? first_capacity : 2 * table.capacity;
	auto *entries = static_cast<table_entry *>(realloc(table.entries, capacity * sizeof(table_entry)));
	if (entries == nullptr)
		return false;
	table.entries = entries;
	table.capacity = capacity;
	return true;
}

static void remove_entry(table_entry *entry)
{
	const size_t behind = static_cast<size_t>(table.entries + table.count - (entry + 1));
	memmove(entry, entry + 1, behind * sizeof(table_entry));
	table.count--;
	if (table.count > 0)
		return;
	free(table.entries);
	table.entries = nullptr;
	table.capacity = 0;
}

// The driver of an entry that nobody will use again, to be freed when the lock is released; else NULL.
static channel_driver *take_unused(int handle)
{
	table_entry *entry = find_entry(handle);
	if (entry == nullptr || --entry->users > 0 || !entry->has_ended)
		return nullptr;
	channel_driver *driver = entry->driver;
	remove_entry(entry);
	return driver;
}

static int add_entry(channel_driver *driver)
{
	const held_lock held = hold(&table.lock);
	if (!has_room())
		return -1;
	table.entries[table.count++] = {++table.last, false, 0, driver};
	return table.last;
}

int handle_table_add(channel_driver *driver)
{
	const int handle = add_entry(driver);
	if (handle < 0) {
		uds_log(UDS_LOG_ERR, "a channel cannot be given a handle");
		channel_driver_free(driver);
	}
	return handle;
}

channel_driver *handle_table_enter(int handle)
{
	const held_lock held = hold(&table.lock);
	table_entry *entry = find_open_entry(handle);
	if (entry == nullptr)
		return nullptr;
	entry->users++;
	return entry->driver;
}

static channel_driver *leave(int handle)
{
	const held_lock held = hold(&table.lock);
	return take_unused(handle);
}

void handle_table_leave(int handle)
{
	channel_driver_free(leave(handle));
}

static channel_driver *enter_last(int handle)
{
	const held_lock held = hold(&table.lock);
	table_entry *entry = find_open_entry(handle);
	if (entry == nullptr)
		return nullptr;
	entry->has_ended = true;
	entry->users++;
	return entry->driver;
}

int handle_table_end(int handle)
{
	channel_driver *driver = enter_last(handle);
	if (driver == nullptr)
		return -1;
	channel_driver_end(driver);
	handle_table_leave(handle);
	return 0;
}
