#include "canserver_lines.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

using bytes = std::vector<uint8_t>;

canserver_message parse(const std::string &text)
{
	canserver_message message;
	canserver_parse(text.data(), text.size(), &message);
	return message;
}

bytes data_of(const canserver_message &message)
{
	return bytes(message.frame.data, message.frame.data + message.frame.length);
}

std::vector<std::string> split(const std::string &text)
{
	canserver_splitter splitter{};
	std::vector<std::string> messages;
	for (const char c : text)
		if (canserver_split(&splitter, c))
			messages.emplace_back(splitter.text, splitter.length);
	return messages;
}

TEST(canserver_parser, understands_every_word)
{
	const struct {
		const char *text;
		canserver_kind kind;
	} rows[] = {
			{"< hi >", CANSERVER_HI},
			{"< ok >", CANSERVER_OK},
			{"<ok>", CANSERVER_OK},
			{"< error could not open bus >", CANSERVER_ERROR},
			{"< error >", CANSERVER_ERROR},
			{"< open can0 >", CANSERVER_OPEN},
			{"<open can0>", CANSERVER_OPEN},
			{"< rawmode >", CANSERVER_RAWMODE},
			{"< echo >", CANSERVER_ECHO},
			{"< send 7E0 2 3E 00 >", CANSERVER_SEND},
			{"< frame 7E8 1.5 7E00 >", CANSERVER_FRAME},
			{"< rtr 123 23.424242 4 >", CANSERVER_REMOTE},
			{"< sendrtr 123 0 >", CANSERVER_REMOTE},
	};
	for (const auto &row : rows)
		EXPECT_EQ(parse(row.text).kind, row.kind) << row.text;
}

TEST(canserver_parser, passes_over_what_it_does_not_understand)
{
	const char *rows[] = {"", "<", ">", "<>", "< >", "hi", "< hi", "< HI >", "< hi there >", "< bcmmode >", "< open >",
			"< open a b >", "< rawmode 1 >", "< send >", "< send 7E0 >", "< send 7E0 9 1 2 3 4 5 6 7 8 9 >",
			"< send 7E0 2 3E >", "< send 7E0 1 3E 00 >", "< send 7E0 1 3E0 >", "< send 7G0 1 3E >",
			"< send 20000000 0 >", "< send 123456789 0 >", "< send -1 0 >", "< frame >", "< frame 7E8 >",
			"< frame 7E8 x 00 >", "< frame 7E8 . 00 >", "< frame 7E8 1.2.3 00 >", "< frame 7E8 1.0 0 >",
			"< frame 7E8 1.0 001122334455667788 >", "< frame 7E8 1.0 0011 22 334455667788 >", "< frame 7E8 1.0 0X >",
			"< rtr >"};
	for (const char *row : rows)
		EXPECT_EQ(parse(row).kind, CANSERVER_UNKNOWN) << row;
}

TEST(canserver_parser, reads_a_send)
{
	const canserver_message message = parse("< send 7E0 3 2 3e 0 >");

	EXPECT_EQ(message.frame.id, 0x7E0u);
	EXPECT_FALSE(message.frame.is_extended);
	EXPECT_EQ(data_of(message), (bytes{0x02, 0x3E, 0x00}));
}

TEST(canserver_parser, reads_a_send_without_data)
{
	for (const char *text : {"< send 123 0 >", "< send 123 0  >"}) {
		EXPECT_EQ(parse(text).kind, CANSERVER_SEND);
		EXPECT_EQ(parse(text).frame.length, 0);
	}
}

TEST(canserver_parser, reads_a_frame_whose_data_are_one_run_or_separate_or_none)
{
	const bytes data = {0x11, 0x22, 0x33, 0x44};
	EXPECT_EQ(data_of(parse("< frame 123 23.424242 11223344 >")), data);
	EXPECT_EQ(data_of(parse("< frame 123 23.424242 11 22 33 44 >")), data);
	EXPECT_EQ(data_of(parse("< frame 123 23.424242  >")), bytes{});
	EXPECT_EQ(data_of(parse("< frame 123 1700000000.000001 0011223344556677 >")).size(), 8u);
}

TEST(canserver_parser, takes_an_identifier_of_8_digits_or_above_7FF_as_29_bit)
{
	EXPECT_FALSE(parse("< send 7FF 0 >").frame.is_extended);
	EXPECT_FALSE(parse("< send 1 0 >").frame.is_extended);
	EXPECT_TRUE(parse("< send 800 0 >").frame.is_extended);
	EXPECT_TRUE(parse("< send 000007E0 0 >").frame.is_extended);
	EXPECT_TRUE(parse("< send 1FFFFFFF 0 >").frame.is_extended);
}

TEST(canserver_parser, gives_the_bus_and_the_reason)
{
	EXPECT_STREQ(parse("< open vcan0 >").text, "vcan0");
	EXPECT_STREQ(parse("< error could not open bus >").text, "could not open bus");
	EXPECT_STREQ(parse("< error a\033[2Jb >").text, "a?[2Jb");
	EXPECT_EQ(strlen(parse("< error " + std::string(180, 'x') + " >").text), canserver_name_max);
	EXPECT_EQ(parse("< open " + std::string(127, 'x') + " >").kind, CANSERVER_OPEN);
	EXPECT_EQ(parse("< open " + std::string(128, 'x') + " >").kind, CANSERVER_UNKNOWN);
}

TEST(canserver_splitter_of, finds_messages_whatever_stands_between_them)
{
	const std::vector<std::string> expected = {"< hi >", "< ok >", "<ok>"};
	EXPECT_EQ(split("< hi >< ok ><ok>"), expected);
	EXPECT_EQ(split("junk< hi >\n\n< ok > >> x\r\n<ok>"), expected);
}

TEST(canserver_splitter_of, passes_over_a_message_that_is_cut_off)
{
	EXPECT_EQ(split("< frame 12< ok >"), std::vector<std::string>{"< ok >"});
}

TEST(canserver_splitter_of, passes_over_a_message_that_is_too_long)
{
	const std::string longest = "<" + std::string(canserver_text_max - 2, 'x') + ">";
	EXPECT_EQ(split(longest), std::vector<std::string>{longest});
	EXPECT_EQ(split("<x" + longest.substr(1) + "< ok >"), std::vector<std::string>{"< ok >"});
	EXPECT_EQ(split("<" + std::string(100000, 'x') + "> >< ok >"), std::vector<std::string>{"< ok >"});
}

TEST(canserver_writer, writes_what_the_parser_reads)
{
	const bus_frame rows[] = {
			{0x7E0, false, 8, {1, 2, 3, 4, 5, 6, 7, 0xFF}},
			{0x7E0, true, 1, {0x3E, 0, 0, 0, 0, 0, 0, 0}},
			{0x18DA10F1, true, 0, {}},
			{0, false, 2, {0xA0, 0x0A, 0, 0, 0, 0, 0, 0}},
	};
	char text[canserver_text_max];
	for (const bus_frame &frame : rows) {
		SCOPED_TRACE(frame.id);
		for (const bool is_send : {true, false}) {
			const size_t length =
					is_send ? canserver_write_send(text, &frame) : canserver_write_frame(text, &frame, 1'000'001);
			const std::vector<std::string> messages = split(std::string(text, length));
			ASSERT_EQ(messages.size(), 1u);
			const canserver_message message = parse(messages[0]);
			EXPECT_EQ(message.kind, is_send ? CANSERVER_SEND : CANSERVER_FRAME);
			EXPECT_EQ(message.frame.id, frame.id);
			EXPECT_EQ(message.frame.is_extended, frame.is_extended);
			EXPECT_EQ(data_of(message), bytes(frame.data, frame.data + frame.length));
		}
	}
}

TEST(canserver_writer, writes_the_texts_of_the_protocol)
{
	char text[canserver_text_max];
	const bus_frame frame = {0x18DAF110, true, 3, {0x02, 0x7E, 0x00, 0, 0, 0, 0, 0}};

	EXPECT_EQ(std::string(text, canserver_write_send(text, &frame)), "< send 18DAF110 3 02 7E 00 >");
	EXPECT_EQ(std::string(text, canserver_write_frame(text, &frame, INT64_C(1'700'000'000'000'042))),
			"\n< frame 18DAF110 1700000000.000042 027E00 >");
	EXPECT_EQ(std::string(text, canserver_write_open(text, "can0")), "< open can0 >");
	EXPECT_LT(canserver_write_open(text, std::string(300, 'x').c_str()), canserver_text_max);
}

TEST(canserver_name, refuses_names_that_would_break_the_protocol)
{
	for (const char *name : {"", "a b", "a>", "<a", "a\n", "\x7f", "\xC3\xA4"})
		EXPECT_FALSE(canserver_name_is_valid(name)) << name;
	EXPECT_FALSE(canserver_name_is_valid(std::string(128, 'x').c_str()));
	EXPECT_TRUE(canserver_name_is_valid(std::string(127, 'x').c_str()));
	EXPECT_TRUE(canserver_name_is_valid("can0"));
}

} // namespace
