#include "unit/request_intake/intake_fixture.h"

#include "movra_fleet/request_intake/can_settings.h"
#include "support/fail_nth.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr const char all[] = R"("targetAddress":"-1")";

class can_settings : public intake_test
{
protected:
	// The first transport that one ECU's settings give; NULL and a failure when there is none.
	const transport_cfg *single(const std::string &settings)
	{
		drop_pending();
		log.clear();
		request_text request;
		request.can = R"("can":)" + settings;
		diag_job *job = queued(request);
		return job != nullptr ? job->transport : nullptr;
	}
	diag_job *list(const std::string &elements)
	{
		drop_pending();
		log.clear();
		request_text request;
		request.target = all;
		request.can = R"("can":)" + elements;
		return queued(request);
	}
	strings failure(const std::string &settings)
	{
		request_text request;
		request.can = settings.empty() ? "" : R"("can":)" + settings;
		return dropped(request);
	}
	// The lines about missing keys, in order.
	strings missing_keys() const
	{
		strings found;
		for (const log_record &record : log.records())
			if (record.source == "tervUtils" && record.level == "INFO")
				found.push_back(record.message);
		return found;
	}
	static strings labels(const diag_job *job)
	{
		strings found;
		for (const transport_cfg *cfg = job->transport; cfg != nullptr; cfg = cfg->next)
			found.push_back(cfg->phy_req_id_text);
		return found;
	}
	static std::vector<uint32_t> ports(const diag_job *job)
	{
		std::vector<uint32_t> found;
		for (const can_port *port = job->can_ports; port != nullptr; port = port->next)
			found.push_back(port->id);
		return found;
	}
};

std::string ecu(const std::string &req, const std::string &more = "")
{
	return R"({"ifname":"can0","phy-req-id":")" + req + R"(","phy-resp-id":"7E8")" + more + "}";
}

}

TEST_F(can_settings, of_one_ecu_fill_one_record)
{
	const transport_cfg *cfg =
			single(R"({"ifname":"can0","phy-req-id":"7E0","phy-resp-id":"7E8","st-min":"0","bsize":"8"})");

	EXPECT_EQ(cfg->params.kind, 0);
	EXPECT_EQ(cfg->params.phy_req_id, 0x7E0u);
	EXPECT_EQ(cfg->params.phy_resp_id, 0x7E8u);
	EXPECT_STREQ(cfg->params.ifname, "can0");
	EXPECT_EQ(cfg->params.bsize, 8);
	EXPECT_EQ(cfg->params.st_min, 0);
	EXPECT_STREQ(cfg->phy_req_id_text, "7E0");
	EXPECT_EQ(cfg->handle, 0);
	EXPECT_EQ(cfg->next, nullptr);
	EXPECT_EQ(ctx->pending_jobs->can_ports, nullptr);
	EXPECT_TRUE(log.has_line("INFO", "movra_fleet", "Interface name: can0"));
}

TEST_F(can_settings, carry_the_text_before_over_to_a_missing_optional_key)
{
	struct {
		const char *more;
		uint8_t st_min, bsize;
	} rows[] = {
			{"", 0xE8, 0xE8},
			{R"(,"bsize":"8")", 0xE8, 8},
			{R"(,"st-min":"14")", 0x14, 0x14},
			{R"(,"st-min":"14","bsize":"0")", 0x14, 0},
			{R"(,"st-min":5,"bsize":null)", 0xE8, 0xE8}, // another type is a missing key
			{R"(,"st-min":"","bsize":"")", 0, 0},
			{R"(,"st-min":"1F1","bsize":"0x110")", 0xF1, 0x10}, // the low 8 bits
			{R"(,"func-addr":"7DF")", 0xE8, 0xE8},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.more);
		const transport_cfg *cfg = single(ecu("7E0", row.more));
		EXPECT_EQ(cfg->params.st_min, row.st_min);
		EXPECT_EQ(cfg->params.bsize, row.bsize);
		EXPECT_THAT(log.messages("ERR"), IsEmpty());
	}
}

TEST_F(can_settings, tell_each_optional_key_that_is_missing_at_info)
{
	single(ecu("7E0"));
	strings told = missing_keys();
	ASSERT_EQ(told.size(), 2u);
	EXPECT_THAT(told[0], testing::StartsWith("No st-min property in { \"reply-id\": \"r-1\""));
	EXPECT_THAT(told[1], testing::StartsWith("No bsize property in { \"reply-id\": \"r-1\""));

	list("[" + ecu("7E0") + "]");
	const std::string element = R"({ "ifname": "can0", "phy-req-id": "7E0", "phy-resp-id": "7E8" })";
	EXPECT_EQ(missing_keys(),
			(strings{"No st-min property in " + element, "No bsize property in " + element,
					"No func-addr property in " + element}));
}

TEST_F(can_settings, of_one_ecu_do_not_read_a_functional_address)
{
	single(ecu("7E0", R"(,"st-min":"0","bsize":"0","func-addr":"7DF")"));

	EXPECT_EQ(ctx->pending_jobs->can_ports, nullptr);
	EXPECT_EQ(log.messages("INFO"), (strings{"Interface name: can0"}));
}

TEST_F(can_settings, tell_the_interface_before_an_identifier_that_is_missing)
{
	for (const char *settings : {R"({"ifname":"can7"})", R"({"ifname":"can7","phy-req-id":"7E0"})"}) {
		EXPECT_THAT(failure(settings), testing::SizeIs(2));
		EXPECT_TRUE(log.has_line("INFO", "movra_fleet", "Interface name: can7"));
	}
}

TEST_F(can_settings, keep_the_request_identifier_as_it_was_given)
{
	struct {
		const char *text;
		uint32_t id;
	} rows[] = {
			{"0x7e0", 0x7E0},
			{"18DA10F1", 0x18DA10F1},
			{"", 0},
			{"zz", 0},
			{"FFFFFFFF", 0xFFFFFFFF},
			{"123456789ABCDEF0", 0xFFFFFFFF},
			{"-1", 0xFFFFFFFF},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		const transport_cfg *cfg = single(ecu(row.text));
		EXPECT_STREQ(cfg->phy_req_id_text, row.text);
		EXPECT_EQ(cfg->params.phy_req_id, row.id);
	}
}

TEST_F(can_settings, cut_an_interface_name_at_127_characters)
{
	std::string name(200, 'n');
	const transport_cfg *cfg = single(R"({"ifname":")" + name + R"(","phy-req-id":"1","phy-resp-id":"2"})");

	EXPECT_EQ(cfg->params.ifname, name.substr(0, 127));
	EXPECT_TRUE(log.has_line("INFO", "movra_fleet", "Interface name: " + name.substr(0, 127)));
}

TEST_F(can_settings, of_one_ecu_need_every_required_key)
{
	struct {
		const char *settings;
		const char *text;
	} rows[] = {
			{"", "'ifname' not found in JSON message"},
			{"null", "'ifname' not found in JSON message"},
			{"5", "'ifname' not found in JSON message"},
			{"\"can0\"", "'ifname' not found in JSON message"},
			{"[]", "'ifname' not found in JSON message"},
			{R"([{"ifname":"can0","phy-req-id":"1","phy-resp-id":"2"}])", "'ifname' not found in JSON message"},
			{"{}", "'ifname' not found in JSON message"},
			{R"({"phy-req-id":"7E0","phy-resp-id":"7E8"})", "'ifname' not found in JSON message"},
			{R"({"ifname":0,"phy-req-id":"7E0","phy-resp-id":"7E8"})", "'ifname' not found in JSON message"},
			{R"({"ifname":"can0","phy-resp-id":"7E8"})", "phy-req-id not found in JSON message"},
			{R"({"ifname":"can0","phy-req-id":2016,"phy-resp-id":"7E8"})", "phy-req-id not found in JSON message"},
			{R"({"ifname":"can0","phy-req-id":"7E0"})", "phy-resp-id not found in JSON message"},
			{R"({"ifname":"can0","phy-req-id":"7E0","phy-resp-id":[]})", "phy-resp-id not found in JSON message"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.settings);
		EXPECT_EQ(failure(row.settings), (strings{row.text, "CAN Configuration parsing failed"}));
	}
}

TEST_F(can_settings, of_all_ecus_give_one_record_for_each_element_in_order)
{
	diag_job *job = list("[" + ecu("7E0", R"(,"func-addr":"7DF")") + "," +
			R"({"ifname":"can1","phy-req-id":"7E1","phy-resp-id":"7E9","st-min":"A","bsize":"4","func-addr":"7DE"})" +
			"]");

	EXPECT_EQ(labels(job), (strings{"7E0", "7E1"}));
	const uds_transport_params &second = job->transport->next->params;
	EXPECT_STREQ(second.ifname, "can1");
	EXPECT_EQ(second.phy_resp_id, 0x7E9u);
	EXPECT_EQ(second.st_min, 0x0A);
	EXPECT_EQ(second.bsize, 4);
	EXPECT_THAT(ports(job), ElementsAre(0x7DFu, 0x7DEu));
	EXPECT_STREQ(job->can_ports->next->params.ifname, "can1");
	EXPECT_EQ(job->can_ports->handle, -1);
	EXPECT_TRUE(log.has_line("INFO", "movra_fleet", "Interface name: can0"));
	EXPECT_TRUE(log.has_line("INFO", "movra_fleet", "Interface name: can1"));
}

TEST_F(can_settings, of_all_ecus_share_one_port_for_one_functional_address)
{
	diag_job *job = list("[" + ecu("7E0", R"(,"func-addr":"7DF")") + "," + ecu("7E1", R"(,"func-addr":"0x7df")") + "]");

	EXPECT_EQ(labels(job), (strings{"7E0", "7E1"}));
	EXPECT_THAT(ports(job), ElementsAre(0x7DFu));
}

TEST_F(can_settings, carry_the_text_before_over_to_a_missing_functional_address)
{
	EXPECT_THAT(ports(list("[" + ecu("7E0") + "]")), ElementsAre(0x7E8u));
	EXPECT_THAT(ports(list("[" + ecu("7E0", R"(,"st-min":"7")") + "]")), ElementsAre(7u));
	EXPECT_THAT(ports(list("[" + ecu("7E0", R"(,"st-min":"7","bsize":"123")") + "]")), ElementsAre(0x123u));
}

TEST_F(can_settings, of_all_ecus_end_at_a_bad_element)
{
	struct {
		const char *element;
		const char *text;
	} rows[] = {
			{R"({"ifname":"can0","phy-req-id":"7E1"})", "phy-resp-id not found in JSON message"},
			{R"({"ifname":"can0","phy-resp-id":"7E1"})", "phy-req-id not found in JSON message"},
			{R"({"phy-req-id":"7E0","phy-resp-id":"7E1"})", "'ifname' not found in JSON message"},
			{"null", "'ifname' not found in JSON message"},
			{"7", "'ifname' not found in JSON message"},
			{"[]", "'ifname' not found in JSON message"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.element);
		diag_job *job = list("[" + ecu("7E0") + "," + row.element + "," + ecu("7E2") + "]");
		EXPECT_EQ(labels(job), (strings{"7E0"}));
		EXPECT_EQ(log.messages("ERR"), (strings{row.text}));
	}
}

TEST_F(can_settings, of_all_ecus_may_be_none)
{
	EXPECT_EQ(list("[]")->transport, nullptr);
	EXPECT_THAT(log.messages("ERR"), IsEmpty());
	EXPECT_EQ(list("[{}]")->transport, nullptr);
}

TEST_F(can_settings, of_all_ecus_need_a_list)
{
	for (const char *can : {"", R"("can":null)", R"("can":"can0")", R"("can":{"ifname":"can0"})"}) {
		SCOPED_TRACE(can);
		request_text request;
		request.target = all;
		request.can = can;
		EXPECT_EQ(
				dropped(request), (strings{"'can_dev' not found in JSON message", "CAN Configuration parsing failed"}));
	}
}

TEST_F(can_settings, read_at_most_256_elements)
{
	auto list_of = [](int count) {
		std::string elements;
		for (int i = 0; i < count; i++)
			elements += (i != 0 ? "," : "") + ecu(std::to_string(i));
		return "[" + elements + "]";
	};
	EXPECT_EQ(labels(list(list_of(256))).size(), 256u);
	EXPECT_THAT(log.messages("ERR"), IsEmpty());

	EXPECT_EQ(labels(list(list_of(257))).size(), 256u);
	EXPECT_EQ(log.messages("ERR"), (strings{"too many elements in body.can"}));
}

TEST_F(can_settings, go_on_without_a_port_that_finds_no_memory)
{
	request_text request;
	request.target = all;
	request.can = R"("can":[)" + ecu("7E0") + "]";
	fail_nth failure("calloc", 3); // the job, the record, the port

	diag_job *job = queued(request);

	EXPECT_EQ(labels(job), (strings{"7E0"}));
	EXPECT_EQ(job->can_ports, nullptr);
}

TEST_F(can_settings, of_all_ecus_end_where_memory_ends)
{
	request_text request;
	request.target = all;
	request.can = R"("can":[)" + ecu("7E0") + "," + ecu("7E1", R"(,"func-addr":"7DF")") + "]";
	fail_nth failure("calloc", 4); // the job, record and port, the second record

	diag_job *job = queued(request);

	EXPECT_EQ(labels(job), (strings{"7E0"}));
	EXPECT_EQ(log.messages("ERR"), (strings{"Memory Allocation failed"}));
}

TEST_F(can_settings, go_behind_the_records_that_the_job_has)
{
	const std::vector<std::pair<std::string, std::string>> rows = {{"7E0", ecu("7E0")}, {"-1", "[" + ecu("7E0") + "]"}};
	for (const auto &[target, settings] : rows) {
		SCOPED_TRACE(target);
		json_object *request = json_tokener_parse((R"({"body":{"can":)" + settings + "}}").c_str());
		diag_job job = {};
		job.target_address = strdup(target.c_str());
		job.transport = static_cast<transport_cfg *>(calloc(1, sizeof(transport_cfg)));
		job.transport->phy_req_id_text = strdup("first");

		EXPECT_EQ(parse_can_config(request, &job), 0);
		EXPECT_THAT(labels(&job), ElementsAre("first", "7E0"));

		free_job_contents(&job);
		json_object_put(request);
	}
}
