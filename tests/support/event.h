// Something that happens on another thread, counted. Waiting never ends a test program's life: it gives up after ten
// seconds.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

class event
{
public:
	void raise()
	{
		std::lock_guard<std::mutex> held(lock);
		++raised;
		changed.notify_all();
	}

	// False when it has not been raised that often in time.
	bool wait(unsigned times = 1)
	{
		std::unique_lock<std::mutex> held(lock);
		return changed.wait_for(held, std::chrono::seconds(10), [&] { return raised >= times; });
	}

	unsigned times()
	{
		std::lock_guard<std::mutex> held(lock);
		return raised;
	}

private:
	std::mutex lock;
	std::condition_variable changed;
	unsigned raised = 0; // guarded by lock
};
