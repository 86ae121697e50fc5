#include "resolver.h"

#include "lock.h"
#include "record.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cstdio>

namespace
{

// As the text that the connecting call takes; addresses that cannot be written so are left out.
void note_addresses(resolve_answer *answer, const addrinfo *list)
{
	for (; list != nullptr && answer->count < resolved_max; list = list->ai_next) {
		numeric_address *next = &answer->addresses[answer->count];
		if (getnameinfo(list->ai_addr, list->ai_addrlen, next->text, sizeof(next->text), nullptr, 0, NI_NUMERICHOST) ==
				0)
			answer->count++;
	}
}

void give_answer(resolve_request *request, const resolve_answer &answer)
{
	const lock_guard guard(&request->lock);
	request->answer = answer;
	request->done = true;
}

void *resolve_thread(void *argument)
{
	const scoped<resolve_request, resolve_release> request(static_cast<resolve_request *>(argument));
	addrinfo hints{};
	hints.ai_socktype = SOCK_STREAM;
	addrinfo *list = nullptr;
	resolve_answer answer;

	const int result = getaddrinfo(request->host, nullptr, &hints, &list);
	if (result != 0) {
		answer.error = gai_strerror(result);
	} else {
		answer.error = "no usable address";
		note_addresses(&answer, list);
		freeaddrinfo(list);
	}
	give_answer(request.get(), answer);
	wake_event_set(request->event);
	return nullptr;
}

bool start_detached(resolve_request *request)
{
	pthread_t thread;
	if (pthread_create(&thread, nullptr, resolve_thread, request) != 0)
		return false;
	(void)pthread_detach(thread); // a thread just made can be detached
	return true;
}

} // namespace

resolve_request *resolve_start(const char *host, wake_event *event)
{
	scoped<resolve_request, resolve_release> request(record_new<resolve_request>());
	if (!request)
		return nullptr;
	request->holders = 1;
	request->event = wake_event_hold(event);
	(void)snprintf(request->host, sizeof(request->host), "%s", host); // a parsed URL's host fits

	if (broker_host_is_numeric(host)) {
		resolve_answer answer;
		answer.count = 1;
		(void)snprintf(
				answer.addresses[0].text, sizeof(answer.addresses[0].text), "%s", host); // numeric ones are short
		give_answer(request.get(), answer);
		return request.release();
	}

	request->holders = 2; // the thread's too
	if (start_detached(request.get()))
		return request.release();
	request->holders = 1;
	return nullptr;
}

bool resolve_finished(resolve_request *request, resolve_answer *answer)
{
	const lock_guard guard(&request->lock);
	if (request->done)
		*answer = request->answer;
	return request->done;
}

void resolve_release(resolve_request *request)
{
	if (request == nullptr || __atomic_fetch_sub(&request->holders, 1, __ATOMIC_ACQ_REL) > 1)
		return;
	wake_event_release(request->event);
	free(request);
}
