// Requests to all ECUs, from the message to the last call of the transport.
#include "intake_fixture.h"

namespace
{

class all_ecus : public intake_test
{
protected:
	static std::string ecus(uint32_t count, bool shared)
	{
		std::string list;
		for (uint32_t i = 0; i < count; ++i) {
			char element[160];
			(void)snprintf(element, sizeof element,
					R"(%s{"ifname":"can0","phy-req-id":"%X","phy-resp-id":"%X","func-addr":"%X"})", i > 0 ? "," : "",
					0x1000 + i, 0x2000 + i, shared ? 0x7DF : 0x3000 + i);
			list += element;
		}
		return "\"can\":[" + list + "]";
	}

	fake_ecu ecu;
};

}

TEST_F(all_ecus, are_asked_for_dtcs_up_to_256_of_them)
{
	for (bool shared : {true, false})
		for (uint32_t count : {0u, 1u, 16u, 64u, 300u}) {
			SCOPED_TRACE(testing::Message() << count << (shared ? " on one address" : " on their own addresses"));
			size_t used = std::min(count, 256u);
			size_t receives = ecu.calls("recv_diag_command").size();
			size_t sends = ecu.calls("send_diag_command").size();
			size_t opened = ecu.calls("transport_init").size();
			size_t closed = ecu.calls("transport_deinit").size();
			request_text request;
			request.target = R"("targetAddress":"-1")";
			request.can = ecus(count, shared);
			request.work = R"("uds":{"SID":"19","subfunction":"UDS_REPORT_SUPPORTED_DTCS"})";

			EXPECT_EQ(dispatch(request), 0);
			diag_job_worker(ctx);

			size_t ports = shared ? std::min<size_t>(used, 1) : used;
			EXPECT_EQ(ecu.calls("recv_diag_command").size() - receives, used);
			EXPECT_EQ(ecu.calls("send_diag_command").size() - sends, ports);
			EXPECT_EQ(ecu.calls("transport_init").size() - opened, used + ports);
			EXPECT_EQ(ecu.calls("transport_deinit").size() - closed, used + ports);
			EXPECT_EQ(ctx->pending_jobs, nullptr);
		}
}
