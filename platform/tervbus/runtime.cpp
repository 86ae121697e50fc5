#include "runtime.h"

#include "bus_clock.h"
#include "client.h"
#include "lock.h"

#include <mosquitto.h>
#include <signal.h>

#include <algorithm>

namespace
{

constexpr size_t first_room = 4; // clients; it doubles

// What a round of the bus thread works on. Made by who starts a client, so that the thread itself never needs memory.
struct round_space {
	size_t room = 0; // clients
	size_t count = 0;
	bus_client **clients = nullptr;
	pollfd *fds = nullptr; // one more, for the wake event
};

void round_space_free(round_space *space)
{
	if (space == nullptr)
		return;
	free(space->clients);
	free(space->fds);
	free(space);
}

using scoped_round_space = scoped<round_space, round_space_free>;

// NULL when memory is short.
round_space *round_space_new(size_t room)
{
	scoped_round_space space(record_new<round_space>());
	if (!space)
		return nullptr;
	space->room = room;
	space->clients = static_cast<bus_client **>(calloc(room, sizeof(void *)));
	space->fds = static_cast<pollfd *>(calloc(room + 1, sizeof(pollfd)));
	return space->clients != nullptr && space->fds != nullptr ? space.release() : nullptr;
}

// Never destroyed: a process may exit with the library running.
struct bus_runtime {
	pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; // guards what follows; no callback runs under it
	pthread_cond_t ended = PTHREAD_COND_INITIALIZER;
	unsigned users = 0;
	bool ending = false; // the thread is being joined
	bool quit = false;   // the thread ends when it has no client left
	pthread_t thread{};
	wake_event *wake = nullptr;      // held
	round_space *running = nullptr;  // owned: the clients that run, each held; its fds are not used
	round_space *for_next = nullptr; // owned: as large, for the bus thread to take; NULL when it has one of that size
};

constinit bus_runtime bus;

thread_local bool on_bus_thread = false;

int poll_timeout(const round_space *round, int64_t now_ms)
{
	int64_t deadline = INT64_MAX;
	for (size_t i = 0; i < round->count; i++)
		deadline = std::min(deadline, client_deadline(round->clients[i], now_ms));
	if (deadline == INT64_MAX)
		return -1;
	return static_cast<int>(std::clamp<int64_t>(deadline - now_ms, 0, 60'000));
}

void forget(const bus_client *client)
{
	const lock_guard guard(&bus.lock);
	bus_client **end = bus.running->clients + bus.running->count;
	(void)std::remove(bus.running->clients, end, client); // it is there
	bus.running->count--;
}

// The release is the last that the caller's record sees of the library; from inside it the record may be started anew.
void step_client(bus_client *client, short ready)
{
	client_step(client, ready, bus_now_ms());
	if (client->state != client_state::released)
		return;
	forget(client);
	const scoped<bus_client, client_release> last(client);
	if (client->on_release != nullptr)
		client->on_release(client->record);
}

void wait_and_step(round_space *round, const wake_event *wake)
{
	round->fds[0] = {wake->fd, POLLIN, 0};
	for (size_t i = 0; i < round->count; i++)
		round->fds[i + 1] = client_poll(round->clients[i]);

	if (poll(round->fds, round->count + 1, poll_timeout(round, bus_now_ms())) < 0)
		return; // interrupted: the next round looks again
	if (round->fds[0].revents != 0)
		wake_event_clear(wake);
	for (size_t i = 0; i < round->count; i++)
		step_client(round->clients[i], round->fds[i + 1].revents);
}

// Takes the clients that run at this moment. Only the bus thread takes one out, so they stay for the round. False when
// the thread is to end.
bool begin_round(scoped_round_space *round)
{
	const lock_guard guard(&bus.lock);
	if (bus.quit && bus.running->count == 0)
		return false;
	if (bus.for_next != nullptr) {
		round->reset(bus.for_next);
		bus.for_next = nullptr;
	}
	std::copy_n(bus.running->clients, bus.running->count, (*round)->clients);
	(*round)->count = bus.running->count;
	return true;
}

void *bus_thread(void *)
{
	on_bus_thread = true;
	const wake_event *wake = bus.wake; // stays until this thread is joined
	scoped_round_space round;
	while (begin_round(&round))
		wait_and_step(round.get(), wake);
	return nullptr;
}

// The process's signals are for its own threads.
bool start_thread(pthread_t *thread)
{
	sigset_t all;
	sigset_t before;
	sigfillset(&all);
	pthread_sigmask(SIG_SETMASK, &all, &before);
	const bool started = pthread_create(thread, nullptr, bus_thread, nullptr) == 0;
	pthread_sigmask(SIG_SETMASK, &before, nullptr);
	return started;
}

// Held, for the caller to release; NULL when no such client runs.
bus_client *find(const tervbus_client *record)
{
	const lock_guard guard(&bus.lock);
	if (bus.running == nullptr)
		return nullptr;
	for (size_t i = 0; i < bus.running->count; i++)
		if (bus.running->clients[i]->record == record)
			return client_hold(bus.running->clients[i]);
	return nullptr;
}

// The lock is held.
void drop_library()
{
	debug_set_sink(nullptr);
	wake_event_release(bus.wake);
	round_space_free(bus.running);
	round_space_free(bus.for_next);
	bus.wake = nullptr;
	bus.running = nullptr;
	bus.for_next = nullptr;
}

// The lock is held.
bool start_library(debug_sink sink)
{
	bus.wake = wake_event_new();
	bus.running = round_space_new(first_room);
	bus.for_next = round_space_new(first_room);
	if (bus.wake == nullptr || bus.running == nullptr || bus.for_next == nullptr)
		return false;
	if (mosquitto_lib_init() != MOSQ_ERR_SUCCESS)
		return false;
	bus.quit = false;
	debug_set_sink(sink);
	if (start_thread(&bus.thread))
		return true;
	(void)mosquitto_lib_cleanup(); // always succeeds
	return false;
}

// The lock is held.
bool make_room()
{
	const size_t count = bus.running->count;
	if (count < bus.running->room)
		return true;
	scoped_round_space more(round_space_new(2 * count));
	scoped_round_space for_next(round_space_new(2 * count));
	if (!more || !for_next)
		return false;
	std::copy_n(bus.running->clients, count, more->clients);
	more->count = count;
	round_space_free(bus.running);
	round_space_free(bus.for_next);
	bus.running = more.release();
	bus.for_next = for_next.release();
	return true;
}

// Takes over the client unless the library ends, the record runs already or memory is short.
int add_client(scoped<bus_client, client_release> client)
{
	const lock_guard guard(&bus.lock);
	if (bus.users == 0 || bus.ending)
		return -1;
	const bus_client *const *end = bus.running->clients + bus.running->count;
	const auto same = [&client](const bus_client *other) {
		return other->record == client->record;
	};
	if (std::any_of<const bus_client *const *>(bus.running->clients, end, same) || !make_room())
		return -1;
	bus.running->clients[bus.running->count++] = client.release();
	wake_event_set(bus.wake);
	return 0;
}

// Held, for the caller to release; NULL when the library does not run.
wake_event *hold_wake_event()
{
	const lock_guard guard(&bus.lock);
	return bus.users == 0 || bus.ending ? nullptr : wake_event_hold(bus.wake);
}

// Tells the thread to end, for the last user; false when there is another one, or none, or this is that thread.
bool begin_end(int *result)
{
	const lock_guard guard(&bus.lock);
	*result = on_bus_thread || bus.users == 0 || bus.ending ? -1 : 0;
	if (*result != 0 || --bus.users > 0)
		return false;
	bus.ending = true;
	bus.quit = true;
	for (size_t i = 0; i < bus.running->count; i++)
		client_stop(bus.running->clients[i]);
	wake_event_set(bus.wake);
	return true;
}

} // namespace

int runtime_begin(debug_sink sink)
{
	const lock_guard guard(&bus.lock);
	if (bus.ending && on_bus_thread)
		return -1;
	while (bus.ending)
		(void)pthread_cond_wait(&bus.ended, &bus.lock); // fails only for a mutex that is not held

	if (bus.users == 0 && !start_library(sink)) {
		drop_library();
		return -1;
	}
	if (bus.users > 0 && sink != nullptr)
		debug_set_sink(sink);
	bus.users++;
	return 0;
}

int runtime_end()
{
	int result = -1;
	if (!begin_end(&result))
		return result;
	pthread_join(bus.thread, nullptr);

	const lock_guard guard(&bus.lock);
	(void)mosquitto_lib_cleanup(); // always succeeds
	drop_library();
	bus.ending = false;
	pthread_cond_broadcast(&bus.ended);
	return 0;
}

int runtime_start_client(tervbus_client *record, const char *url)
{
	const scoped<wake_event, wake_event_release> wake(hold_wake_event());
	if (!wake)
		return -1;

	const char *why = "";
	scoped<bus_client, client_release> client(client_new(record, url, wake.get(), &why));
	if (!client) {
		debug_text("client not started: %s", why);
		return -1;
	}
	return add_client(std::move(client));
}

int runtime_stop_client(const tervbus_client *record)
{
	const scoped<bus_client, client_release> client(find(record));
	if (client)
		client_stop(client.get());
	return 0; // a client that does not run is stopped already
}

int runtime_send(const tervbus_client *record, tervbus_message *message)
{
	const scoped<bus_client, client_release> client(find(record));
	return client ? client_send(client.get(), message) : -1;
}
