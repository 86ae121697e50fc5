// The library on a bus where much goes on at once: many ECUs that answer together, and traffic of others that nearly
// fills it. Built once for a CAN server of its own and once, with ON_A_KERNEL, for a kernel's vcan0.
#include <atomic>
#include <future>

#include "can_link.h"
#include "isotp_channel.h"
#include "library_bench.h"
#include "support/tier.h"

namespace
{

using busy_bus = library_bench;

struct played_ecu {
	uint32_t request_id;
	uint32_t response_id;
	bytes answer;
	std::unique_ptr<isotp_channel, void (*)(isotp_channel *)> channel{nullptr, isotp_channel_free};
};

// ECUs that answer every request, physical or functional, as fast as the flow controls allow, each one frame in turn.
// They share one connection and one thread.
class played_ecus
{
public:
	static constexpr uint32_t functional_id = 0x7DF;
	static constexpr uint32_t long_functional_id = 0x18DB33F1;

	// Their clock is so many times slower: 64 channels on a busy machine must not look like ECUs that gave up.
	explicit played_ecus(std::vector<played_ecu> ecus, int64_t slowness = 1)
			: ecus_(std::move(ecus)), slowness_(slowness)
	{
		for (played_ecu &ecu : ecus_) {
			const isotp_settings settings = isotp_default_settings(ecu.response_id, ecu.request_id);
			ecu.channel.reset(isotp_channel_new(&settings));
		}
		EXPECT_EQ(can_link_open(&link_, "vcan0", CAN_LINK_TAKES_ALL, 0), 0);
		thread_ = std::thread([this] { run(); });
	}

	~played_ecus()
	{
		stops_ = true;
		thread_.join();
		can_link_close(&link_);
	}

	played_ecus(const played_ecus &) = delete;
	played_ecus &operator=(const played_ecus &) = delete;

	// Bits of the frames that were for none of the ECUs.
	uint64_t foreign_bits() const
	{
		return foreign_bits_;
	}

private:
	int64_t now_us() const
	{
		return can_link_monotonic_us() / slowness_;
	}

	void answer(played_ecu &ecu)
	{
		EXPECT_EQ(isotp_send(ecu.channel.get(), ecu.answer.data(), ecu.answer.size(), now_us()), 0);
	}

	void take(const bus_frame &frame)
	{
		const bool is_functional = frame.id == functional_id || frame.id == long_functional_id;
		bool is_ours = is_functional;
		for (played_ecu &ecu : ecus_) {
			is_ours = is_ours || frame.id == ecu.request_id;
			if (is_functional || isotp_take_frame(ecu.channel.get(), &frame, now_us()) == ISOTP_EVENT_PDU)
				answer(ecu);
		}
		if (!is_ours)
			foreign_bits_ += bus_frame_bits(frame);
	}

	// One frame of each ECU that has one due; false when none had, or the link has no room.
	bool send_a_round()
	{
		bool has_sent = false;
		for (played_ecu &ecu : ecus_) {
			bus_frame frame{};
			isotp_step(ecu.channel.get(), now_us());
			const isotp_out out = isotp_next_frame(ecu.channel.get(), &frame, now_us());
			if (out == ISOTP_OUT_NONE)
				continue;
			if (link_.send(link_.state, &frame) != 0)
				return false;
			isotp_frame_sent(ecu.channel.get(), out, now_us());
			has_sent = true;
		}
		return has_sent;
	}

	void run()
	{
		while (!stops_) {
			bus_frame frame{};
			while (link_.receive(link_.state, &frame) == 1)
				take(frame);
			if (send_a_round())
				continue;
			int64_t wait_us = 10000;
			for (const played_ecu &ecu : ecus_)
				wait_us = std::min(wait_us, isotp_deadline(ecu.channel.get()) - now_us()); // sooner than it need be
			link_.wait(link_.state, -1, can_link_monotonic_us() + std::max(wait_us, INT64_C(200)));
		}
	}

	std::vector<played_ecu> ecus_;
	int64_t slowness_;
	can_link link_{};
	std::atomic<bool> stops_ = false;
	std::atomic<uint64_t> foreign_bits_ = 0;
	std::thread thread_;
};

constexpr size_t ecu_count = 64;

// Half of them on 11-bit identifiers, half on 29-bit ones; each answer tells whose it is.
std::vector<played_ecu> sixty_four_ecus(size_t answer_length)
{
	std::vector<played_ecu> ecus;
	for (uint32_t i = 0; i < ecu_count; i++) {
		played_ecu ecu;
		ecu.request_id = i % 2 == 0 ? 0x600 + i : 0x18DA00F1 | i << 8;
		ecu.response_id = i % 2 == 0 ? 0x680 + i : 0x18DAF100 | i;
		ecu.answer = counted_bytes(answer_length);
		ecu.answer[0] = static_cast<uint8_t>(i);
		ecus.push_back(std::move(ecu));
	}
	return ecus;
}

class a_bus_of_64_ecus : public busy_bus
{
protected:
	std::vector<int> handles;

	void open_handles()
	{
		for (const played_ecu &ecu : sixty_four_ecus(1)) {
			handles.push_back(init(ecu.request_id, ecu.response_id));
			ASSERT_GT(handles.back(), 0);
		}
	}

	void TearDown() override
	{
		for (const int handle : handles)
			EXPECT_EQ(transport_deinit(handle, 0), 0);
		library_bench::TearDown();
	}

	// What each ECU answers to one functional request.
	std::vector<bytes> ask_all(int functional)
	{
		std::vector<std::future<bytes>> coming;
		std::atomic<size_t> begun = 0;
		for (const int handle : handles)
			coming.push_back(std::async(std::launch::async, [handle, &begun] {
				begun++;
				return receive(handle, 20000);
			}));
		while (begun < handles.size())
			std::this_thread::yield();
		EXPECT_EQ(send(functional, {0x19, 0x0A}), 0);
		std::vector<bytes> answers;
		for (std::future<bytes> &one : coming)
			answers.push_back(one.get());
		return answers;
	}
};

TEST_F(a_bus_of_64_ecus, answers_a_functional_request_at_once_and_whole)
{
	const std::vector<size_t> lengths = times(2) == 1 ? std::vector<size_t>{20} : std::vector<size_t>{7, 8, 60, 200};
	open_handles();
	for (const uint32_t functional_id : {played_ecus::functional_id, played_ecus::long_functional_id})
		for (const size_t length : lengths) {
			SCOPED_TRACE(length);
			const played_ecus ecus(sixty_four_ecus(length), 20);
			const int functional = init(functional_id, 0);
			ASSERT_GT(functional, 0);
			const std::vector<bytes> answers = ask_all(functional);
			const std::vector<played_ecu> expected = sixty_four_ecus(length);
			for (size_t i = 0; i < ecu_count; i++)
				EXPECT_EQ(answers[i], expected[i].answer) << "ECU " << i;
			EXPECT_EQ(transport_deinit(functional, 0), 0);
		}
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr uint32_t bitrate = 250000; // whatever carries the frames is several times slower
#else
constexpr uint32_t bitrate = 500000;
#endif
constexpr uint8_t answer_gap_ms = 1500000 / bitrate; // of what the others leave it takes about four fifths
constexpr double foreign_load = 0.9;

// Frames of all lengths and both widths, at foreign_load of the bus.
class flood
{
public:
	flood()
	{
		EXPECT_EQ(can_link_open(&link_, "vcan0", CAN_LINK_TAKES_NONE, 0), 0);
		thread_ = std::thread([this] { run(); });
	}

	~flood()
	{
		stops_ = true;
		thread_.join();
		can_link_close(&link_);
	}

	flood(const flood &) = delete;
	flood &operator=(const flood &) = delete;

private:
	void run()
	{
		double due_us = static_cast<double>(can_link_monotonic_us());
		bus_frame frame{};
		for (uint32_t i = 0; !stops_; i++) {
			frame.id = i % 3 == 0 ? 0x18DAF101 + i % 7 : 0x7E9 + i % 7; // the neighbours of the ECU's
			frame.is_extended = i % 3 == 0;
			frame.length = static_cast<uint8_t>(8 - i % 4);
			frame.data[0] = static_cast<uint8_t>(0x21 + i % 15); // as a consecutive frame
			while (!stops_ && link_.send(link_.state, &frame) != 0)
				can_link_poll(-1, -1, can_link_monotonic_us() + 200);
			due_us += bus_frame_bits(frame) * 1e6 / (bitrate * foreign_load);
			can_link_poll(-1, -1, static_cast<int64_t>(due_us));
		}
	}

	can_link link_{};
	std::atomic<bool> stops_ = false;
	std::thread thread_;
};

class a_bus_full_of_others : public busy_bus
{
protected:
	void SetUp() override
	{
		bus_line_options line;
		line.bitrate = bitrate;
		server = std::make_unique<can_server_thread>(std::vector<std::string>{"vcan0"}, uint16_t{0}, line);
		busy_bus::SetUp();
	}
};

TEST_F(a_bus_full_of_others, loses_nothing_of_an_answer_of_4095_bytes)
{
	const bytes answer = counted_bytes(4095);
	const uint64_t answer_bits = 586 * bus_frame_bits({0x7E8, false, 8, {}});
	std::vector<played_ecu> one(1);
	one[0].request_id = 0x7E0;
	one[0].response_id = 0x7E8;
	one[0].answer = answer;
	const played_ecus ecus(std::move(one));
	const flood others;
	for (unsigned i = 0; i < times(4); i++) {
		uds_transport_params block = params(0x7E0, 0x7E8);
		block.st_min = answer_gap_ms;
		block.bsize = i % 2 == 0 ? 0 : 8;
		const int handle = transport_init(0, &block);
		ASSERT_GT(handle, 0);
		const uint64_t before = ecus.foreign_bits();
		ASSERT_EQ(send(handle, {0x22, 0xF1, 0x90}), 0);

		EXPECT_EQ(receive(handle, 5000), answer);

		EXPECT_GT(ecus.foreign_bits() - before, 4 * answer_bits) << "it was a flood";
		EXPECT_EQ(transport_deinit(handle, 0), 0);
	}
}

} // namespace
