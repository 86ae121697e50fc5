#include "fakes/fake_udsutils.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace
{

std::atomic<fake_ecu *> current = nullptr;
std::atomic<int> calls_under_way = 0;

// A call of the library: the script that it is for, which stays until the call's end.
class entry
{
public:
	entry()
	{
		++calls_under_way;
		script = current;
	}
	~entry()
	{
		if (--calls_under_way == 0)
			calls_under_way.notify_all();
	}
	entry(const entry &) = delete;
	entry &operator=(const entry &) = delete;

	fake_ecu *script;
};

constexpr int failed = -1;

}

// The library's functions at work on the script. Each takes the lock for its own step; hooks run without it.
struct fake_ecu_access {
	static void note(fake_ecu &ecu, fake_uds_call call)
	{
		{
			std::lock_guard guard(ecu.lock);
			call.at_ms = ecu.clock_ms;
			ecu.record.push_back(call);
		}
		if (ecu.on_call)
			ecu.on_call(call);
	}

	static int check(fake_ecu &ecu, const std::map<std::string, int> &by_name, int otherwise, const char *ifname)
	{
		std::lock_guard guard(ecu.lock);
		auto found = by_name.find(ifname);
		return found == by_name.end() ? otherwise : found->second;
	}

	static int next_result(std::deque<int> &results, int otherwise)
	{
		if (results.empty())
			return otherwise;
		int result = results.front();
		results.pop_front();
		return result;
	}

	static int init(fake_ecu &ecu, const uds_transport_params *params)
	{
		std::lock_guard guard(ecu.lock);
		int handle = next_result(ecu.init_results, 0);
		if (handle == fake_ecu::handle_zero)
			return 0;
		if (handle == 0)
			handle = ++ecu.last_handle;
		if (handle > 0 && params != nullptr)
			ecu.channel_ids[handle] = params->phy_req_id;
		return handle;
	}

	// The first row of the request that has not been used, else the last one.
	static fake_ecu::row *row_for(fake_ecu &ecu, int handle, const fake_bytes &request)
	{
		fake_ecu::row *found = nullptr;
		for (fake_ecu::row &row : ecu.rows) {
			if (row.request != request || (row.phy_req_id != 0 && row.phy_req_id != ecu.channel_ids[handle]))
				continue;
			found = &row;
			if (!row.used)
				break;
		}
		return found;
	}

	static int send(fake_ecu &ecu, int handle, const fake_bytes &request)
	{
		std::lock_guard guard(ecu.lock);
		int result = next_result(ecu.send_results, 0);
		ecu.pending[handle].clear();
		if (result < 0)
			return result;
		if (fake_ecu::row *row = row_for(ecu, handle, request); row != nullptr) {
			row->used = true;
			ecu.pending[handle].assign(row->answers.begin(), row->answers.end());
		}
		return result;
	}

	static std::deque<fake_answer> *script_of(fake_ecu &ecu, int handle)
	{
		std::deque<fake_answer> &own = ecu.pending[handle];
		if (!own.empty())
			return &own;
		std::deque<fake_answer> &of_ecu = ecu.by_ecu[ecu.channel_ids[handle]];
		if (!of_ecu.empty())
			return &of_ecu;
		return ecu.unasked.empty() ? nullptr : &ecu.unasked;
	}

	// Takes the next answer of the queue that due within timeout_ms; else the time passes and there is none.
	static bool take(fake_ecu &ecu, std::deque<fake_answer> *queue, int64_t timeout_ms, fake_answer &answer)
	{
		if (queue == nullptr || queue->empty()) {
			ecu.clock_ms += timeout_ms;
			return false;
		}
		if (queue->front().delay_ms > timeout_ms) {
			ecu.clock_ms += timeout_ms;
			queue->front().delay_ms -= timeout_ms;
			return false;
		}
		answer = queue->front();
		ecu.clock_ms += answer.delay_ms;
		if (!answer.forever)
			queue->pop_front();
		return true;
	}

	static int receive(fake_ecu &ecu, int handle, uint8_t *response, uint32_t *length, int timeout_ms)
	{
		fake_answer answer({});
		{
			std::lock_guard guard(ecu.lock);
			if (!take(ecu, script_of(ecu, handle), timeout_ms, answer))
				return failed;
		}
		if (answer.hook)
			answer.hook();
		return give(answer, response, length, *length);
	}

	static int give(const fake_answer &answer, uint8_t *out, uint32_t *length, uint32_t capacity)
	{
		if (answer.bytes.size() > capacity)
			return failed;
		if (answer.result < 0 && answer.bytes.empty())
			return answer.result;
		if (!answer.bytes.empty())
			memcpy(out, answer.bytes.data(), answer.bytes.size());
		*length = static_cast<uint32_t>(answer.bytes.size());
		return answer.result;
	}

	static int open_port(fake_ecu &ecu, uint32_t can_id)
	{
		std::lock_guard guard(ecu.lock);
		int result = next_result(ecu.port_results, 0);
		if (result < 0)
			return result;
		int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC); // real, because its holder closes it
		ecu.port_ids[descriptor] = can_id;
		return descriptor;
	}

	static int receive_frame(fake_ecu &ecu, int descriptor, uint8_t *data, uint8_t *length)
	{
		constexpr int64_t frame_timeout_ms = 5000;
		fake_answer answer({});
		{
			std::lock_guard guard(ecu.lock);
			if (!take(ecu, &ecu.can_frames[ecu.port_ids[descriptor]], frame_timeout_ms, answer))
				return failed;
		}
		if (answer.hook)
			answer.hook();
		uint32_t count = 0;
		int result = give(answer, data, &count, 8);
		if (result >= 0)
			*length = static_cast<uint8_t>(count);
		return result;
	}
};

fake_ecu::fake_ecu()
{
	current = this;
}

fake_ecu::~fake_ecu()
{
	current = nullptr;
	for (int count = calls_under_way; count != 0; count = calls_under_way)
		calls_under_way.wait(count);
}

void fake_ecu::on(fake_bytes request, std::vector<fake_answer> answers, uint32_t phy_req_id)
{
	std::lock_guard guard(lock);
	rows.push_back({std::move(request), phy_req_id, std::move(answers), false});
}

void fake_ecu::answers(std::vector<fake_answer> answers)
{
	std::lock_guard guard(lock);
	unasked.insert(unasked.end(), answers.begin(), answers.end());
}

void fake_ecu::answers_from(uint32_t phy_req_id, std::vector<fake_answer> answers)
{
	std::lock_guard guard(lock);
	std::deque<fake_answer> &queue = by_ecu[phy_req_id];
	queue.insert(queue.end(), answers.begin(), answers.end());
}

void fake_ecu::drop_answers()
{
	std::lock_guard guard(lock);
	unasked.clear();
	pending.clear();
	by_ecu.clear();
}

void fake_ecu::frames(uint32_t can_id, std::vector<fake_answer> frames)
{
	std::lock_guard guard(lock);
	std::deque<fake_answer> &queue = can_frames[can_id];
	queue.insert(queue.end(), frames.begin(), frames.end());
}

std::vector<fake_uds_call> fake_ecu::calls() const
{
	std::lock_guard guard(lock);
	return record;
}

std::vector<fake_uds_call> fake_ecu::calls(const std::string &function) const
{
	std::vector<fake_uds_call> found;
	for (const fake_uds_call &call : calls())
		if (call.function == function)
			found.push_back(call);
	return found;
}

std::vector<std::string> fake_ecu::names() const
{
	std::vector<std::string> found;
	for (const fake_uds_call &call : calls())
		found.push_back(call.function);
	return found;
}

std::vector<fake_bytes> fake_ecu::requests() const
{
	std::vector<fake_bytes> found;
	for (const fake_uds_call &call : calls("send_diag_command"))
		found.push_back(call.data);
	return found;
}

std::vector<int> fake_ecu::receive_timeouts_ms() const
{
	std::vector<int> found;
	for (const fake_uds_call &call : calls("recv_diag_command"))
		found.push_back(call.timeout_ms);
	return found;
}

int64_t fake_ecu::now_ms() const
{
	std::lock_guard guard(lock);
	return clock_ms;
}

bool fake_ecu::idle()
{
	return calls_under_way == 0;
}

extern "C" {

int transport_interface_availibility(const char *ifname, int kind)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return 0;
	fake_uds_call call = {.function = __func__, .kind = kind, .ifname = ifname};
	fake_ecu_access::note(*ecu, call);
	return fake_ecu_access::check(*ecu, ecu->available_by_name, ecu->available, ifname);
}

int transport_interface_status(const char *ifname, int kind)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return 0;
	fake_uds_call call = {.function = __func__, .kind = kind, .ifname = ifname};
	fake_ecu_access::note(*ecu, call);
	return fake_ecu_access::check(*ecu, ecu->up_by_name, ecu->up, ifname);
}

int transport_init(int kind, const uds_transport_params *params)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return failed;
	fake_uds_call call = {.function = __func__, .kind = kind, .has_params = params != nullptr};
	if (params != nullptr)
		call.params = *params;
	fake_ecu_access::note(*ecu, call);
	return fake_ecu_access::init(*ecu, params);
}

int transport_deinit(int handle, int kind)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return failed;
	fake_ecu_access::note(*ecu, {.function = __func__, .kind = kind, .handle = handle});
	return ecu->deinit_result;
}

int send_diag_command(int handle, const uint8_t *request, uint32_t length, int kind)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return failed;
	fake_bytes data(request, request + length);
	fake_ecu_access::note(*ecu, {.function = __func__, .kind = kind, .handle = handle, .data = data, .length = length});
	return fake_ecu_access::send(*ecu, handle, data);
}

int recv_diag_command(int handle, uint8_t *response, uint32_t *length, int timeout_ms, int kind)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return failed;
	fake_ecu_access::note(
			*ecu, {.function = __func__, .kind = kind, .handle = handle, .length = *length, .timeout_ms = timeout_ms});
	return fake_ecu_access::receive(*ecu, handle, response, length, timeout_ms);
}

int open_can_port(const char *ifname, uint32_t can_id)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return failed;
	fake_ecu_access::note(*ecu, {.function = __func__, .ifname = ifname, .can_id = can_id});
	return fake_ecu_access::open_port(*ecu, can_id);
}

int receive_can_frame(int descriptor, uint8_t *data, uint8_t *length)
{
	entry call_entry;
	fake_ecu *ecu = call_entry.script;
	if (ecu == nullptr)
		return failed;
	fake_ecu_access::note(*ecu, {.function = __func__, .handle = descriptor});
	return fake_ecu_access::receive_frame(*ecu, descriptor, data, length);
}

void movra_uds_util_debug_init(int verbosity)
{
	entry call_entry;
	if (fake_ecu *ecu = call_entry.script; ecu != nullptr)
		fake_ecu_access::note(*ecu, {.function = __func__, .verbosity = verbosity});
}
}
