// Versions by UDS requests.
#include "version_fixture.h"

namespace
{

class version_reading : public version_fixture
{
};

fake_bytes answer_of(const fake_bytes &head, const std::string &text)
{
	fake_bytes bytes = head;
	bytes.insert(bytes.end(), text.begin(), text.end());
	return bytes;
}

const fake_bytes head = {0x62, 0xF1, 0x89};

std::string hex_of(const fake_bytes &bytes, size_t length)
{
	std::string text;
	for (size_t i = 0; i < length; ++i) {
		char pair[3];
		(void)snprintf(pair, sizeof pair, "%02x", i < bytes.size() ? bytes[i] : 0);
		text += pair;
	}
	return text;
}

}

TEST_F(version_reading, asks_by_uds_and_replies_with_the_text)
{
	verbosity_scope level(LOG_D2BG);
	cfg->params.kind = 1;
	ask({"22F189"});
	ecu.on({0x22, 0xF1, 0x89}, {fake_answer(answer_of(head, "V1.4"))});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(ecu.names(),
			(texts{"transport_interface_availibility", "transport_interface_status", "transport_init",
					"send_diag_command", "recv_diag_command", "transport_deinit"}));
	std::vector<fake_uds_call> calls = ecu.calls();
	for (const fake_uds_call &call : calls)
		EXPECT_EQ(call.kind, 1) << call.function;
	EXPECT_EQ(calls[2].params.phy_req_id, 0x7E0u);
	EXPECT_EQ(calls[3].handle, 1);
	EXPECT_EQ(calls[3].data, (fake_bytes{0x22, 0xF1, 0x89}));
	EXPECT_EQ(calls[4].handle, 1);
	EXPECT_EQ(calls[4].length, 1024u);
	EXPECT_EQ(calls[4].timeout_ms, 1000);
	EXPECT_EQ(calls[5].handle, 1);
	EXPECT_EQ(version(), "V1.4");
	EXPECT_TRUE(output.has_line("D2BG", "movra_fleet", "Sending : 22F189 to 7E0"));
}

TEST_F(version_reading, replies_before_it_closes_the_channel)
{
	ask({"22F189"});
	ecu.on({0x22, 0xF1, 0x89}, {fake_answer(answer_of(head, "V1.4"))});
	size_t sent_at_close = 0;
	ecu.on_call = [&](const fake_uds_call &call) {
		if (call.function == "transport_deinit")
			sent_at_close = agent.replies().size();
	};
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(sent_at_close, 1u);
}

TEST_F(version_reading, checks_the_interface_for_both_kinds)
{
	const struct {
		const char *what;
		int32_t kind;
		int available, up;
		const char *text;
		texts calls;
	} rows[] = {
			{"UDS, missing", VERSION_UDS, 0, 1, "can0 is not available",
					{"transport_interface_availibility", "transport_deinit"}},
			{"UDS, down", VERSION_UDS, 1, 0, "can0 is not UP",
					{"transport_interface_availibility", "transport_interface_status", "transport_deinit"}},
			{"J1939, missing", VERSION_J1939, 0, 1, "can0 is not available", {"transport_interface_availibility"}},
			{"J1939, down", VERSION_J1939, 1, 0, "can0 is not UP",
					{"transport_interface_availibility", "transport_interface_status"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		size_t calls_before = ecu.names().size();
		query(row.kind, row.kind == VERSION_UDS ? "[\"22F189\"]" : j1939_head + "]}");
		ecu.available = row.available;
		ecu.up = row.up;
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(errors(), texts{row.text});
		texts names = ecu.names();
		EXPECT_EQ(texts(names.begin() + static_cast<long>(calls_before), names.end()), row.calls);
		if (row.calls.back() == "transport_deinit") {
			EXPECT_EQ(ecu.calls().back().handle, 0); // never opened
		}
	}
}

TEST_F(version_reading, closes_even_a_channel_that_did_not_open)
{
	ask({"22F189"});
	ecu.init_results = {-7};
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(errors(), texts{"Unable open can port"});
	EXPECT_EQ(ecu.names().back(), "transport_deinit");
	EXPECT_EQ(ecu.calls().back().handle, -7);
	EXPECT_EQ(version(), "(none)");
}

TEST_F(version_reading, fails_with_the_line_of_the_first_failure)
{
	const struct {
		const char *what;
		int send;
		std::vector<fake_answer> answers;
		texts errors;
	} rows[] = {
			{"the request was not sent", -1, {}, {"send_diag_command failed"}},
			{"a silent ECU", 0, {}, {"recv_diag_command failed"}},
			{"a refusal", 0, {{0x7F, 0x22, 0x31}}, {"Negative Response 22"}},
			{"a refusal of one byte", 0, {{0x7F}}, {"Negative Response 0"}},
			{"pending, then silence", 0, {{0x7F, 0x22, 0x78}}, {"recv_diag_command failed"}},
			{"another service's answer", 0, {{0x6E, 0xF1, 0x89}}, {"Invalid Response 6e f1 89"}},
			{"an answer of one byte", 0, {{0x01}}, {"Invalid Response 1 0 0"}},
			{"an empty answer", 0, {fake_answer(fake_bytes{})}, {"Invalid Response 0 0 0"}},
			{"longer than the buffer", 0, {fake_answer(fake_bytes(1025, 0x62))}, {"recv_diag_command failed"}},
			{"8191 bytes", 0, {fake_answer(fake_bytes(8191, 0x62))}, {"recv_diag_command failed"}},
	};
	ask({"22F189", "22F190"});
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		size_t sent_before = ecu.requests().size();
		ecu.drop_answers();
		ecu.answers(row.answers);
		ecu.send_results = {row.send};
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(errors(), row.errors);
		EXPECT_EQ(ecu.requests().size(), sent_before + 1); // the later request is not sent
		EXPECT_EQ(ecu.names().back(), "transport_deinit");
		EXPECT_EQ(version(), "(none)");
	}
}

TEST_F(version_reading, keeps_receiving_while_the_answer_is_pending)
{
	ask({"22F189"});
	ecu.answers({{0x7F, 0x22, 0x78, 'j', 'u', 'n', 'k'}, {0x7F, 0x22, 0x78}, fake_answer(answer_of(head, "V"))});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), "V");
	EXPECT_EQ(output.count("INFO", "movra_fleet", "NRC: 0x78: requestCorrectlyReceived-ResponsePending"), 2u);
	EXPECT_EQ(ecu.receive_timeouts_ms(), (std::vector<int>{1000, 1000, 1000}));
}

TEST_F(version_reading, shows_nothing_of_a_pending_answer_behind_a_short_one)
{
	ask({"22F189"});
	ecu.answers({{0x7F, 0x22, 0x78, 'j', 'u', 'n', 'k'}, {0x62}});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), "");
}

TEST_F(version_reading, keeps_an_earlier_version_when_a_later_request_fails)
{
	const struct {
		const char *what;
		std::vector<fake_answer> second;
		const char *error;
	} rows[] = {
			{"refused", {{0x7F, 0x22, 0x31}}, "Negative Response 22"},
			{"silent", {}, "recv_diag_command failed"},
			{"strange", {{0x11}}, "Invalid Response 11 0 0"},
	};
	ask({"22F189", "22F190"});
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		ecu.drop_answers();
		ecu.answers({fake_answer(answer_of(head, "first"))});
		ecu.answers(row.second);
		EXPECT_EQ(run(), 0);
		EXPECT_EQ(version(), "first");
		EXPECT_EQ(errors(), texts{row.error});
	}
}

TEST_F(version_reading, replaces_an_earlier_version_by_a_later_one)
{
	fake_bytes binary = head;
	binary.resize(head.size() + 255, 0x01);
	ask({"22F189", "22F190"});
	ecu.answers({fake_answer(binary), fake_answer(answer_of(head, std::string(400, 'x')))});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), std::string(255, 'x')); // two requests: 255 bytes, whatever was there before
}

TEST_F(version_reading, takes_a_version_only_from_read_data_by_identifier)
{
	ask({"1003", "22F189", "3E00"});
	ecu.on({0x10, 0x03}, {{0x50, 0x03, 0x00, 'n', 'o'}});
	ecu.on({0x22, 0xF1, 0x89}, {{0x62, 0xF1, 0x89, 'y'}});
	ecu.on({0x3E, 0x00}, {{0x7E, 0x00, 0x00, 'n', 'o'}});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(ecu.requests().size(), 3u);
	EXPECT_EQ(version(), ""); // three requests: no bytes
}

TEST_F(version_reading, has_no_version_without_such_an_answer)
{
	ask({"1003"});
	ecu.answers({{0x50, 0x03}});
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(errors(), texts{});
	EXPECT_EQ(version(), "(none)");
}

TEST_F(version_reading, takes_as_many_bytes_as_the_number_of_requests_says)
{
	// The low 8 bits of the number, less 3, in 8 bits.
	const struct {
		size_t requests;
		size_t length;
	} rows[] = {{1, 254}, {2, 255}, {3, 0}, {4, 1}, {5, 2}, {10, 7}, {255, 252}, {256, 253}, {257, 254}, {258, 255},
			{259, 0}, {260, 1}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.requests);
		ask({"22F189"}, row.requests);

		std::string letters(1000, 'v');
		ecu.drop_answers();
		ecu.answers({fake_answer(answer_of(head, letters), 0, 0, {}, true)});
		EXPECT_EQ(run(), 0);
		EXPECT_EQ(version(), letters.substr(0, row.length));

		fake_bytes binary(1000, 0xC3);
		fake_bytes whole = head;
		whole.insert(whole.end(), binary.begin(), binary.end());
		ecu.drop_answers();
		ecu.answers({fake_answer(whole, 0, 0, {}, true)});
		EXPECT_EQ(run(), 0);
		EXPECT_EQ(version(), hex_of(binary, row.length));
	}
}

TEST_F(version_reading, says_why_no_bytes_are_no_text)
{
	ask({"22F189"}, 3);
	ecu.answers({fake_answer(answer_of(head, "abc"), 0, 0, {}, true)});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(errors(), texts(3, "Invalid parameter"));
	EXPECT_EQ(version(), "");
}

TEST_F(version_reading, shows_bytes_that_are_no_text_as_digits)
{
	ask({"22F189"}, 6); // three bytes
	fake_bytes bytes = {0x0A, 0xFF, 0x30};
	fake_bytes whole = head;
	whole.insert(whole.end(), bytes.begin(), bytes.end());
	ecu.answers({fake_answer(whole, 0, 0, {}, true)});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), "0aff30");
	EXPECT_EQ(errors(), texts(6, "String is not UTF-8"));
}

TEST_F(version_reading, reads_a_text_that_fills_its_buffer)
{
	ask({"22F189"});
	fake_bytes full = answer_of(head, std::string(1021, 'f'));
	ASSERT_EQ(full.size(), 1024u);
	ecu.answers({fake_answer(full)});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), std::string(254, 'f'));
}

TEST_F(version_reading, shows_utf8_as_it_is)
{
	ask({"22F189"});
	ecu.answers({fake_answer(answer_of(head, "r\xC3\xA9v 2\t"))});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), "r\xC3\xA9v 2\t");
}

TEST_F(version_reading, cuts_a_text_where_its_bytes_end_even_within_a_character)
{
	ask({"22F189"}, 5); // two bytes
	ecu.answers({fake_answer(answer_of(head, "v\xC3\xA9"), 0, 0, {}, true)});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), "v\xC3");
	EXPECT_EQ(errors(), texts{}); // it is the whole text that is looked at
}

TEST_F(version_reading, accepts_a_positive_answer_that_looks_like_a_refusal)
{
	ask({"3F00"});
	ecu.answers({{0x7F, 0x3F, 0x78}});
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(errors(), texts{});
	EXPECT_EQ(ecu.receive_timeouts_ms().size(), 1u); // it is not pending either
}

TEST_F(version_reading, sends_what_the_hex_text_says)
{
	const struct {
		const char *what;
		std::string element;
		fake_bytes request;
	} rows[] = {
			{"mixed case", "\"22f18A\"", {0x22, 0xF1, 0x8A}},
			{"odd length", "\"22F1891\"", {0x22, 0xF1, 0x89}},
			{"one digit", "\"2\"", {}},
			{"nothing", "\"\"", {}},
			{"no digits", "\"ZZ22\"", {0x00, 0x22}},
			{"a number", "1234", {0x12, 0x34}},
			{"null", "null", {}},
			{"longer than the buffer", "\"" + std::string(2 * 5000, '1') + "\"", fake_bytes(2048, 0x11)},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		query(VERSION_UDS, "[" + row.element + "]");
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(ecu.requests().back(), row.request);
		EXPECT_EQ(ecu.calls("send_diag_command").back().length, row.request.size());
	}
}

TEST_F(version_reading, asks_nothing_for_an_empty_list)
{
	query(VERSION_UDS, "[]");
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(errors(), texts{});
	EXPECT_EQ(ecu.names(),
			(texts{"transport_interface_availibility", "transport_interface_status", "transport_init",
					"transport_deinit"}));
}

TEST_F(version_reading, takes_10000_requests)
{
	ask({"22F189"}, 10'000); // 10000 is 16 in its low 8 bits
	ecu.answers({fake_answer(answer_of(head, "0123456789abcdef"), 0, 0, {}, true)});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(ecu.requests().size(), 10'000u);
	EXPECT_EQ(version(), "0123456789abc");
}

// Another library may tell a number of bytes, and number its channels from 0.
TEST_F(version_reading, takes_only_negative_results_for_failures)
{
	ask({"22F189"});
	ecu.init_results = {fake_ecu::handle_zero};
	ecu.send_results = {3};
	ecu.answers({fake_answer({0x7F, 0x22, 0x78}, 3), fake_answer(answer_of(head, "V1.4"), 7)});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(version(), "V1.4");
	EXPECT_EQ(errors(), texts{});
	for (const char *function : {"send_diag_command", "recv_diag_command", "transport_deinit"})
		EXPECT_EQ(ecu.calls(function).back().handle, 0) << function;
}

TEST_F(version_reading, opens_nothing_once_the_agent_has_stopped)
{
	for (const char *last : {"transport_interface_availibility", "transport_interface_status"}) {
		SCOPED_TRACE(last);
		ask({"22F189"});
		ecu.on_call = [&](const fake_uds_call &call) {
			if (call.function == last)
				agent_request_stop(agent.ctx);
		};
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(ecu.calls("transport_init").size(), 0u);
		agent.ctx->stopping = 0;
	}
	ecu.on_call = {};
	agent_request_stop(agent.ctx);
	size_t calls_before = ecu.names().size();
	EXPECT_EQ(run(), -1);
	texts names = ecu.names();
	EXPECT_EQ(texts(names.begin() + static_cast<long>(calls_before), names.end()), texts{"transport_deinit"});
}

TEST_F(version_reading, sends_no_further_request_when_the_agent_stops)
{
	ask({"22F189"}, 3);
	ecu.answers({fake_answer(
			answer_of(head, "x"), 0, 0, [&] { agent_request_stop(agent.ctx); }, true)});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(ecu.requests().size(), 1u);
	EXPECT_EQ(ecu.names().back(), "transport_deinit");
}

TEST_F(version_reading, ends_a_chain_of_pending_answers_when_the_agent_stops)
{
	ask({"22F189"});
	ecu.answers({fake_answer(
			{0x7F, 0x22, 0x78}, 0, 0, [&] { agent_request_stop(agent.ctx); }, true)});
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(ecu.receive_timeouts_ms().size(), 1u);
}

TEST_F(version_reading, does_nothing_for_another_kind)
{
	for (int32_t kind : {VERSION_NONE, version_kinds{3}, version_kinds{-1}}) {
		SCOPED_TRACE(kind);
		query(kind, "[\"22F189\"]");
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(ecu.names(), texts{});
		EXPECT_EQ(log(), texts{});
	}
}

TEST_F(version_reading, needs_the_settings_of_an_ecu)
{
	transport_cfg *only = job->transport;
	job->transport = nullptr;
	for (int32_t kind : {VERSION_UDS, VERSION_J1939}) {
		query(kind, kind == VERSION_UDS ? "[\"22F189\"]" : j1939_head + "]}");
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(errors(), texts{"Invalid TP Cfg received"});
		EXPECT_EQ(ecu.names(), texts{});
	}
	job->transport = only;
}

TEST_F(version_reading, is_done_even_when_the_reply_fails)
{
	ask({"22F189"});
	ecu.answers({fake_answer(answer_of(head, "V"))});
	free(job->reply_id);
	job->reply_id = nullptr;
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(errors(), texts{"Could not add 'reply-to' to JSON"});
	EXPECT_EQ(version(), "(none)");
}
