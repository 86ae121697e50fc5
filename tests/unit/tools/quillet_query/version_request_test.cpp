#include "version_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

static version_options by_uds()
{
	version_options options;
	options.transport.ecu = "7E0:7E8";
	options.transport.interface_name = "can0";
	options.uds = {"22F195"};
	return options;
}

static version_options by_j1939()
{
	version_options options;
	options.transport.interface_name = "can0";
	options.j1939 = "18FEDA00";
	options.signals = {"major:0:8:1:0"};
	return options;
}

static std::string built(const version_options &options)
{
	std::string request;
	std::string error;
	return build_version_request(options, "req-1", request, error) ? request : "refused: " + error;
}

TEST(version_request, has_whole_requests_to_the_ecu)
{
	version_options options = by_uds();
	options.uds = {"22F195", "22f189"};

	EXPECT_EQ(built(options),
			R"({"reply-id":"req-1","type":"movra.quillet-query","body":{"targetAddress":"7E0","mode":"CAN",)"
			R"("can":{"ifname":"can0","phy-req-id":"7E0","phy-resp-id":"7E8","st-min":"0","bsize":"8"},)"
			R"("version":{"uds":["22F195","22f189"]}}})");
}

TEST(version_request, has_the_signals_of_a_broadcast_frame)
{
	version_options options = by_j1939();
	options.signals = {"major:0:8:2:1", "minor:8:16:3", "patch:32:32"};
	options.frame_timeout = "250";

	EXPECT_EQ(built(options),
			R"({"reply-id":"req-1","type":"movra.quillet-query","body":{"targetAddress":"18FEDA00","mode":"CAN",)"
			R"("can":{"ifname":"can0","phy-req-id":"18FEDA00","phy-resp-id":"18FEDA00","st-min":"0","bsize":"8"},)"
			R"("version":{"j1939":{"ifname":"can0","id":"18FEDA00","timeout":"250","signal":[)"
			R"({"name":"major","start_bit":"0","bitlength":"8","factor":"2","offset":"1"},)"
			R"({"name":"minor","start_bit":"8","bitlength":"16","factor":"3","offset":"0"},)"
			R"({"name":"patch","start_bit":"32","bitlength":"32","factor":"1","offset":"0"}]}}}})");
}

TEST(version_request, names_the_ecu_beside_a_broadcast_frame_when_it_is_given)
{
	version_options options = by_j1939();
	options.transport.ecu = "7E0:7E8";

	EXPECT_THAT(built(options), HasSubstr(R"("targetAddress":"7E0")"));
	EXPECT_THAT(built(options), HasSubstr(R"("phy-req-id":"7E0","phy-resp-id":"7E8")"));
}

TEST(version_request, takes_a_request_of_2048_bytes_and_no_more)
{
	version_options options = by_uds();

	options.uds = {std::string(4096, 'A')};
	EXPECT_THAT(built(options), HasSubstr(std::string(4096, 'A')));
	options.uds = {std::string(4098, 'A')};
	EXPECT_THAT(built(options), HasSubstr("refused: --uds"));
}

TEST(version_request, is_refused_when_an_argument_makes_no_sense)
{
	const struct {
		version_options (*base)();
		void (*change)(version_options &);
		const char *says;
	} rows[] = {
			{by_uds, [](version_options &options) { options.uds.clear(); }, "give either --uds"},
			{by_uds, [](version_options &options) { options.j1939 = "18FEDA00"; }, "give either --uds"},
			{by_uds,
					[](version_options &options) {
						options.uds = {"22F195", "22F"};
					},
					"--uds \"22F\" is not"},
			{by_uds, [](version_options &options) { options.uds = {""}; }, "--uds \"\" is not"},
			{by_uds, [](version_options &options) { options.uds = {"0x22"}; }, "--uds \"0x22\" is not"},
			{by_uds, [](version_options &options) { options.signals = {"major:0:8"}; }, "--signal belongs to --j1939"},
			{by_uds, [](version_options &options) { options.transport.ecu = ""; }, "--uds needs --ecu"},
			{by_uds, [](version_options &options) { options.transport.ecu = "7E0"; }, "--ecu \"7E0\" is not"},
			{by_uds, [](version_options &options) { options.transport.interface_name = ""; }, "--interface is empty"},
			{by_j1939, [](version_options &options) { options.j1939 = "20000000"; }, "--j1939 \"20000000\" is not"},
			{by_j1939, [](version_options &options) { options.j1939 = "frame"; }, "--j1939 \"frame\" is not"},
			{by_j1939, [](version_options &options) { options.signals.clear(); }, "at least one --signal"},
			{by_j1939, [](version_options &options) { options.frame_timeout = "soon"; }, "--frame-timeout \"soon\""},
			{by_j1939, [](version_options &options) { options.frame_timeout = "4294967296"; }, "--frame-timeout"},
			{by_j1939, [](version_options &options) { options.transport.interface_name = ""; }, "--interface is empty"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.says);
		version_options options = row.base();
		row.change(options);
		EXPECT_THAT(built(options), HasSubstr(std::string("refused: ")));
		EXPECT_THAT(built(options), HasSubstr(row.says));
	}
}

TEST(version_signal, is_refused_when_its_form_is_wrong)
{
	for (const char *text : {"", "major", "major:0", ":0:8", "major:0:8:1:0:0", "major:x:8", "major:0:-8",
				 "major:0:8:0.5", "major:0:8:1:-1", "major:0:8:4294967296", "major:0:8:1:2147483648",
				 "major:0:8:", "major: 0:8", "major:0:99999999999"}) {
		SCOPED_TRACE(text);
		version_options options = by_j1939();
		options.signals = {text};
		EXPECT_THAT(built(options), HasSubstr("refused: --signal \"" + std::string(text) + "\" is not NAME:START"));
	}
}

TEST(version_signal, lies_within_the_frame)
{
	const struct {
		const char *text;
		bool good;
	} rows[] = {
			{"a:0:1", true},
			{"a:63:1", true},
			{"a:32:32", true},
			{"a:0:8:4294967295:2147483647", true},
			{"a:0:0", false},
			{"a:0:33", false},
			{"a:64:1", false},
			{"a:33:32", false},
			{"a:4294967295:32", false},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		version_options options = by_j1939();
		options.signals = {row.text};
		if (row.good)
			EXPECT_THAT(built(options), HasSubstr("\"signal\":[{\"name\":\"a\""));
		else
			EXPECT_THAT(built(options), HasSubstr("a signal has 1 to 32 bits, within the 64 bits of the frame"));
	}
}
