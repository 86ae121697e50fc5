// Records in allocated memory. The library is built without exceptions, where a failing `new` ends the process:
// everything that is made while it runs comes from here or from calloc, and its maker looks at the result.
#pragma once

#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

// A record with its members' initial values; NULL when memory is short. free releases it.
template <typename T>
T *record_new()
{
	static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
	void *space = calloc(1, sizeof(T));
	return space != nullptr ? new (space) T() : nullptr;
}

template <auto fn>
struct released_by {
	template <typename T>
	void operator()(T *pointer) const
	{
		fn(pointer);
	}
};

// A pointer that fn releases when its owner leaves the block, unless release() handed it over.
template <typename T, auto fn>
using scoped = std::unique_ptr<T, released_by<fn>>;

// A queue through the records' own next pointers: nothing is allocated to stand in it.
template <typename T>
struct fifo {
	T *first = nullptr;
	T *last = nullptr; // meaningless while first is NULL
};

template <typename T>
void fifo_append(fifo<T> *queue, fifo<T> *more)
{
	if (more->first == nullptr)
		return;
	if (queue->first == nullptr)
		queue->first = more->first;
	else
		queue->last->next = more->first;
	queue->last = more->last;
	*more = {};
}

template <typename T>
void fifo_push(fifo<T> *queue, T *record)
{
	record->next = nullptr;
	fifo<T> one{record, record};
	fifo_append(queue, &one);
}

// NULL when it is empty.
template <typename T>
T *fifo_pop(fifo<T> *queue)
{
	T *record = queue->first;
	if (record != nullptr)
		queue->first = record->next;
	return record;
}
