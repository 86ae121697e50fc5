// A DTC request to every ECU of its list.
#include "dtc_fixture.h"

namespace
{

class dtc_of_all_ecus : public dtc_fixture
{
};

const fake_bytes request = {0x19, 0x02, 0x09};

}

TEST_F(dtc_of_all_ecus, asks_all_ecus_on_every_can_port)
{
	ask_all();
	cfg->params.kind = 1; // and that of its port
	EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
	add_ecu(0x7E1, 0x7DE, "can1");
	add_ecu(0x7E2, 0x7DF);
	for (uint32_t id : {0x7E0u, 0x7E1u, 0x7E2u})
		ecu.answers_from(id, {{0x59, 0x02, static_cast<uint8_t>(id)}});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(worker_call_names(),
			(texts{"transport_interface_availibility", "transport_interface_status", "transport_init",
					"transport_interface_availibility", "transport_interface_status", "transport_init",
					"transport_interface_availibility", "transport_interface_status", "transport_init",
					"transport_init", "send_diag_command", "transport_init", "send_diag_command", "transport_deinit",
					"transport_deinit", "transport_deinit", "transport_deinit", "transport_deinit"}));
	std::vector<fake_uds_call> opened = ecu.calls("transport_init");
	ASSERT_EQ(opened.size(), 5u);
	EXPECT_EQ(opened[3].params.phy_req_id, 0x7DFu);
	EXPECT_EQ(opened[3].params.phy_resp_id, 0u);
	EXPECT_STREQ(opened[3].params.ifname, "can0");
	EXPECT_EQ(opened[4].params.phy_req_id, 0x7DEu);
	EXPECT_STREQ(opened[4].params.ifname, "can1");
	EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{request, request}));
	EXPECT_EQ(handles("send_diag_command"), (std::vector<int>{4, 5}));
	EXPECT_EQ(handles("transport_deinit"), (std::vector<int>{4, 5, 1, 2, 3}));
	EXPECT_EQ(kinds("transport_init"), (std::vector<int>{1, 0, 0, 1, 0}));
	EXPECT_EQ(kinds("send_diag_command"), (std::vector<int>{0, 0})); // the job's transport type
	EXPECT_EQ(kinds("transport_deinit"), (std::vector<int>{1, 0, 1, 0, 0}));
	EXPECT_EQ(reported(), (texts{"7E0 E0", "7E1 E1", "7E2 E2"}));
	for (const can_port *port = job->can_ports; port != nullptr; port = port->next)
		EXPECT_EQ(port->handle, -1);
}

TEST_F(dtc_of_all_ecus, reports_silent_and_refusing_ecus_beside_the_others)
{
	ask_all();
	EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
	add_ecu(0x7E1, 0x7DF);
	add_ecu(0x7E2, 0x7DF);
	ecu.answers_from(0x7E0, {{0x59, 0x02, 0xFF}});
	ecu.answers_from(0x7E2, {{0x7F, 0x19, 0x22}});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(reported(), (texts{"7E0 FF", "7E2 7F1922"}));
}

TEST_F(dtc_of_all_ecus, asks_as_many_ecus_as_the_request_lists)
{
	for (bool shared : {true, false})
		for (uint32_t count : {0u, 1u, 16u, 64u, 256u}) {
			SCOPED_TRACE(testing::Message() << count << (shared ? " on one address" : " on their own addresses"));
			free_job_contents(job);
			free(job);
			job = new_test_job();
			job->sid = 0x19;
			job->dtc_subfunction = 0x0A;
			ask_all();
			size_t sent_before = ecu.requests().size();
			texts expected;
			for (uint32_t i = 0; i < count; ++i) {
				add_ecu(0x600 + i, shared ? 0x7DF : 0x400 + i);
				ecu.answers_from(0x600 + i, {{0x59, 0x0A, static_cast<uint8_t>(i)}});
				char text[16];
				(void)snprintf(text, sizeof text, "%X %02X", 0x600 + i, i);
				expected.push_back(text);
			}

			EXPECT_EQ(run(), count > 0 ? 0 : -1);

			EXPECT_EQ(ecu.requests().size() - sent_before, shared && count > 0 ? 1 : count);
			if (count > 0)
				EXPECT_EQ(reported(), expected);
			else
				EXPECT_EQ(output.messages("ERR"), (texts{"Invalid Array", "send_dtc_response_to_bridge failed"}));
		}
}

TEST_F(dtc_of_all_ecus, receives_only_from_the_ecus_before_an_interface_that_is_missing)
{
	ask_all();
	EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
	add_ecu(0x7E1, 0x7DE, "can9");
	add_ecu(0x7E2, 0x7DD);
	ecu.available_by_name["can9"] = 0;
	for (uint32_t id : {0x7E0u, 0x7E1u, 0x7E2u})
		ecu.answers_from(id, {{0x59, 0x02, static_cast<uint8_t>(id)}});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(reported(), texts{"7E0 E0"});
	EXPECT_EQ(output.messages("ERR"), texts{"can9 is not available"});
	EXPECT_EQ(ecu.requests().size(), 3u); // on every port all the same
	EXPECT_EQ(ecu.calls("recv_diag_command").size(), 1u);
}

TEST_F(dtc_of_all_ecus, sends_to_no_further_port_after_a_failure)
{
	ask_all();
	EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
	add_ecu(0x7E1, 0x7DE);
	add_ecu(0x7E2, 0x7DD);
	ecu.send_results = {0, -1};
	ecu.answers_from(0x7E0, {{0x59, 0x02, 0xE0}});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(ecu.calls("transport_init").size(), 5u);
	EXPECT_EQ(ecu.requests().size(), 2u);
	EXPECT_EQ(ecu.calls("recv_diag_command").size(), 3u); // all are waited for
	EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "send_diag_command failed"));
	EXPECT_EQ(reported(), texts{"7E0 E0"});
	EXPECT_EQ(handles("transport_deinit"), (std::vector<int>{4, 5, 1, 2, 3}));
}

TEST_F(dtc_of_all_ecus, sends_on_a_port_that_did_not_open_but_not_on_handle_zero)
{
	const struct {
		int init_result;
		std::vector<int> handles;
	} rows[] = {{-3, {-3}}, {fake_ecu::handle_zero, {}}};
	ask_all();
	EXPECT_EQ(add_can_port(job, 0x7DF, cfg), 0);
	for (const auto &row : rows) {
		SCOPED_TRACE(row.init_result);
		size_t sent_before = ecu.requests().size();
		ecu.init_results = {0, row.init_result};
		EXPECT_EQ(run(), -1);
		std::vector<int> sent = handles("send_diag_command");
		EXPECT_EQ(std::vector<int>(sent.begin() + static_cast<long>(sent_before), sent.end()), row.handles);
	}
	EXPECT_EQ(handles("transport_deinit"), (std::vector<int>{1, 2})); // of the ECU, each time
}

TEST_F(dtc_of_all_ecus, asks_all_without_any_ecu)
{
	ask_all();
	free_transport_cfg(&job->transport);
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(ecu.names(), texts{});
	EXPECT_EQ(log(),
			(texts{"INFO Preparin to send info to FLEET-1", "ERR Invalid Array",
					"ERR send_dtc_response_to_bridge failed"}));
}
