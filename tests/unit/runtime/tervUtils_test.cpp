#include "tervUtils.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"

namespace
{

struct json_release {
	void operator()(json_object *object) const
	{
		json_object_put(object);
	}
};
using document = std::unique_ptr<json_object, json_release>;

document parse(const char *text)
{
	return document(json_tokener_parse(text));
}

std::string plain(json_object *object)
{
	return object != nullptr ? json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN) : "NULL";
}

using texts = std::vector<std::string>;

// What is on disk at each sync(), which takes no time here.
std::string saved_path;
texts synced;

std::string file_text(const std::string &path)
{
	std::stringstream saved;
	saved << std::ifstream(path).rdbuf();
	return saved.str();
}

}

extern "C" {
void __wrap_sync();

void __wrap_sync()
{
	synced.push_back(file_text(saved_path));
}
}

TEST(json_get_path, borrows_a_text)
{
	document request = parse(R"({"body":{"uds":{"SID":"0x19"}}})");
	captured_output output;
	const char *text = nullptr;

	EXPECT_EQ(json_get_path(request.get(), json_type_string, &text, "body", "uds", "SID", NULL), 0);
	EXPECT_STREQ(text, "0x19");
	EXPECT_EQ(output.text(), "");
}

TEST(json_get_path, converts_a_value_of_each_plain_type)
{
	document request = parse(R"({"yes":true,"no":false,"number":-7,"real":2.5})");
	int yes = -1, no = -1, number = 0;
	double real = 0;

	EXPECT_EQ(json_get_path(request.get(), json_type_boolean, &yes, "yes", NULL), 0);
	EXPECT_EQ(json_get_path(request.get(), json_type_boolean, &no, "no", NULL), 0);
	EXPECT_EQ(json_get_path(request.get(), json_type_int, &number, "number", NULL), 0);
	EXPECT_EQ(json_get_path(request.get(), json_type_double, &real, "real", NULL), 0);
	EXPECT_EQ(yes, 1);
	EXPECT_EQ(no, 0);
	EXPECT_EQ(number, -7);
	EXPECT_EQ(real, 2.5);
}

TEST(json_get_path, copies_objects_and_arrays_so_that_they_outlive_the_document)
{
	document request = parse(R"({"body":{"can":[1,{"a":"b"}],"uds":{"x":1.50}}})");
	json_object *array = nullptr, *object = nullptr;

	EXPECT_EQ(json_get_path(request.get(), json_type_array, &array, "body", "can", NULL), 0);
	EXPECT_EQ(json_get_path(request.get(), json_type_object, &object, "body", "uds", NULL), 0);
	request.reset();

	EXPECT_EQ(plain(array), R"([1,{"a":"b"}])");
	EXPECT_EQ(plain(object), R"({"x":1.50})");
	json_object_put(array);
	json_object_put(object);
}

TEST(json_get_path, refuses_a_value_of_another_type_without_a_line)
{
	document request = parse(R"({"body":{"uds":{"SID":25}}})");
	captured_output output;
	const char *text = "before";

	EXPECT_EQ(json_get_path(request.get(), json_type_string, &text, "body", "uds", "SID", NULL), -1);
	EXPECT_STREQ(text, "before");
	EXPECT_EQ(output.text(), "");
}

TEST(json_get_path, logs_each_key_from_the_missing_one_on)
{
	document request = parse(R"({"type":"x"})");
	captured_output output;
	const char *text = nullptr;

	EXPECT_EQ(json_get_path(request.get(), json_type_string, &text, "body", "uds", "SID", NULL), -1);

	EXPECT_EQ(output.messages("INFO"),
			(texts{R"(No body property in { "type": "x" })", R"(No uds property in { "type": "x" })",
					R"(No SID property in { "type": "x" })"}));
	EXPECT_EQ(output.records().size(), 3u);
	EXPECT_EQ(output.records()[0].source, "tervUtils");
}

TEST(json_get_path, logs_no_missing_key_below_info)
{
	verbosity_scope scope(LOG_WARN);
	document request = parse("{}");
	captured_output output;
	int value = 0;

	EXPECT_EQ(json_get_path(request.get(), json_type_int, &value, "body", NULL), -1);
	EXPECT_EQ(output.text(), "");
}

TEST(json_get_path, stores_the_deepest_node_of_the_wanted_type)
{
	const struct {
		const char *json;
		int type, result;
		const char *copy;
	} rows[] = {
			{R"({"a":{"b":{"c":1}}})", json_type_object, 0, R"({"c":1})"},
			{R"({"a":{"b":{"c":{"d":2}}}})", json_type_object, 0, R"({"d":2})"},
			{R"({"a":{"b":{}}})", json_type_object, -1, "NULL"},
			{R"({"a":[{"b":1}]})", json_type_array, -1, "NULL"},
			{R"({"a":{"b":{"c":[]}}})", json_type_array, 0, "[]"},
			{R"({"a":{"b":{"c":null}}})", json_type_object, 0, R"({"c":null})"},
			{R"({"a":null})", json_type_object, -1, "NULL"},
			{R"([1])", json_type_object, -1, "NULL"},
			{R"("a")", json_type_object, -1, "NULL"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.json);
		document request = parse(row.json);
		captured_output output;
		json_object *copy = nullptr;
		EXPECT_EQ(json_get_path(request.get(), row.type, &copy, "a", "b", "c", NULL), row.result);
		EXPECT_EQ(plain(copy), row.copy);
		json_object_put(copy);
	}
}

TEST(json_get_path, takes_a_null_as_present_but_of_no_type)
{
	document request = parse(R"({"a":null})");
	captured_output output;
	const char *text = nullptr;

	EXPECT_EQ(json_get_path(request.get(), json_type_string, &text, "a", NULL), -1);
	EXPECT_EQ(output.text(), "");
}

TEST(json_get_path, copies_once_however_many_levels_match)
{
	document request = parse(R"({"a":{"b":{"c":{"d":1}}}})");
	json_object *copy = nullptr;
	fail_nth copies("json_object_deep_copy", 0);

	EXPECT_EQ(json_get_path(request.get(), json_type_object, &copy, "a", "b", "c", NULL), 0);
	EXPECT_EQ(copies.calls(), 1u);
	json_object_put(copy);
}

TEST(json_get_path, releases_the_copy_of_an_earlier_call)
{
	document request = parse(R"({"a":{"x":1},"b":{"y":2}})");
	json_object *copy = nullptr;
	ASSERT_EQ(json_get_path(request.get(), json_type_object, &copy, "a", NULL), 0);
	document held(json_object_get(copy));

	EXPECT_EQ(json_get_path(request.get(), json_type_object, &copy, "b", NULL), 0);

	EXPECT_EQ(plain(copy), R"({"y":2})");
	json_object_put(copy);
	EXPECT_EQ(json_object_put(held.release()), 1) << "the first copy is still held";
}

TEST(json_get_path, leaves_null_when_a_lookup_into_a_used_variable_fails)
{
	document request = parse(R"({"a":{"x":1}})");
	captured_output output;
	for (int type : {json_type_object, json_type_array}) {
		SCOPED_TRACE(type);
		json_object *copy = json_object_new_object();
		EXPECT_EQ(json_get_path(request.get(), type, &copy, "missing", NULL), -1);
		EXPECT_EQ(copy, nullptr);
	}
}

TEST(json_get_path, fails_without_a_line_when_memory_for_the_copy_is_short)
{
	document request = parse(R"({"a":{"x":1}})");
	captured_output output;
	json_object *copy = nullptr;
	fail_nth failure("json_object_deep_copy", 1);

	EXPECT_EQ(json_get_path(request.get(), json_type_object, &copy, "a", NULL), -1);
	EXPECT_EQ(copy, nullptr);
	EXPECT_EQ(output.text(), "");
}

TEST(json_get_path, refuses_type_codes_outside_the_table)
{
	document request = parse(R"({"a":1,"n":null})");
	int value = 5;
	for (int type : {-1, 0, 7, 100}) {
		SCOPED_TRACE(type);
		EXPECT_EQ(json_get_path(request.get(), type, &value, "a", NULL), -1);
		EXPECT_EQ(json_get_path(request.get(), type, &value, "n", NULL), -1);
	}
	EXPECT_EQ(value, 5);
}

TEST(json_get_path, refuses_a_missing_output)
{
	document request = parse("{}");
	captured_output output;

	EXPECT_EQ(json_get_path(request.get(), json_type_int, nullptr, "a", NULL), -1);
	EXPECT_TRUE(output.has_line("ERR", "tervUtils", "Wrong Value"));
}

TEST(json_get_path, takes_a_missing_document)
{
	captured_output output;
	int value = 0;

	EXPECT_EQ(json_get_path(nullptr, json_type_int, &value, "a", NULL), -1);
	EXPECT_EQ(output.messages("INFO"), (texts{"No a property in null"}));
}

TEST(json_path_exists, asks_for_presence_whatever_the_types)
{
	document request = parse(R"({"body":{"version":"text","n":null},"list":[1]})");
	const char *no_key = nullptr;
	captured_output output;

	EXPECT_TRUE(json_path_exists(request.get(), json_type_object, "body", "version", NULL));
	EXPECT_TRUE(json_path_exists(request.get(), json_type_string, "body", NULL));
	EXPECT_TRUE(json_path_exists(request.get(), json_type_object, "body", "n", NULL));
	EXPECT_TRUE(json_path_exists(request.get(), json_type_object, no_key, NULL)) << "an empty path";
	EXPECT_FALSE(json_path_exists(request.get(), json_type_object, "body", "uds", NULL));
	EXPECT_FALSE(json_path_exists(request.get(), json_type_object, "body", "version", "uds", NULL));
	EXPECT_FALSE(json_path_exists(request.get(), json_type_object, "list", "0", NULL));
	EXPECT_FALSE(json_path_exists(nullptr, json_type_object, "body", NULL));
	EXPECT_EQ(output.text(), "");
}

TEST(json_set_string_path, replaces_a_string_at_the_end_of_its_object)
{
	document settings = parse(R"({"a":{"name":"old","other":1}})");

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, "new", "a", "name", NULL), 0);
	EXPECT_EQ(plain(settings.get()), R"({"a":{"other":1,"name":"new"}})");
}

TEST(json_set_string_path, refuses_other_types_and_changes_nothing)
{
	document settings = parse(R"({"a":{"b":1}})");

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_int, "5", "a", "b", NULL), -1);
	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_object, "5", "a", NULL), -1);
	EXPECT_EQ(plain(settings.get()), R"({"a":{"b":1}})");
}

TEST(json_set_string_path, leaves_a_value_of_another_type_than_asked_for)
{
	document settings = parse(R"({"a":1})");

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, "5", "a", NULL), 0);
	EXPECT_EQ(plain(settings.get()), R"({"a":1})");
}

TEST(json_set_string_path, logs_missing_keys_as_errors)
{
	document settings = parse(R"({"a":1})");
	captured_output output;

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, "x", "b", "c", NULL), -1);
	EXPECT_EQ(output.messages("ERR"), (texts{R"(No b property in { "a": 1 })", R"(No c property in { "a": 1 })"}));
}

TEST(json_set_string_path, goes_on_below_a_string_that_it_replaced)
{
	document settings = parse(R"({"a":"x"})");
	captured_output output;

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, "y", "a", "b", NULL), -1);
	EXPECT_EQ(plain(settings.get()), R"({"a":"y"})");
	EXPECT_EQ(output.messages("ERR"), (texts{R"(No b property in { "a": "y" })"}));
}

TEST(json_set_string_path, fails_without_a_value)
{
	document settings = parse(R"({"a":"x"})");

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, nullptr, "a", NULL), -1);
	EXPECT_EQ(plain(settings.get()), R"({"a":"x"})");
}

TEST(json_set_string_path, keeps_the_old_string_when_memory_for_the_new_one_is_short)
{
	document settings = parse(R"({"a":"x"})");
	fail_nth failure("json_object_new_string", 1);

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, "y", "a", NULL), -1);
	EXPECT_EQ(plain(settings.get()), R"({"a":"x"})");
}

TEST(json_set_string_path, fails_when_the_new_string_cannot_be_added)
{
	document settings = parse(R"({"a":"x"})");
	fail_nth failure("json_object_object_add", 1);

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, "y", "a", NULL), -1);
	EXPECT_EQ(plain(settings.get()), "{}");
}

TEST(json_set_string_path, saves_the_document_pretty)
{
	document settings = parse(R"({"a":"x"})");
	saved_path = testing::TempDir() + "json_set_string_path_XXXXXX";
	close(mkstemp(saved_path.data()));
	synced.clear();

	EXPECT_EQ(json_set_string_path(settings.get(), saved_path.c_str(), json_type_string, "y", "a", NULL), 0);

	EXPECT_EQ(file_text(saved_path), "{\n  \"a\":\"y\"\n}");
	EXPECT_EQ(synced, (texts{file_text(saved_path)})) << "once, after the file was written";
	remove(saved_path.c_str());
}

TEST(json_set_string_path, neither_saves_nor_syncs_without_a_path)
{
	document settings = parse(R"({"a":"x"})");
	synced.clear();

	EXPECT_EQ(json_set_string_path(settings.get(), nullptr, json_type_string, "y", "a", NULL), 0);

	EXPECT_EQ(synced, (texts{}));
}

TEST(json_set_string_path, fails_when_the_document_cannot_be_saved)
{
	document settings = parse(R"({"a":"x"})");

	EXPECT_EQ(json_set_string_path(settings.get(), "/nowhere/at/all.json", json_type_string, "y", "a", NULL), -1);
	EXPECT_EQ(plain(settings.get()), R"({"a":"y"})");
}

TEST(string_format_alloc, formats_into_new_memory)
{
	char *text = string_format_alloc("%s/private.pem", "/certs");

	EXPECT_STREQ(text, "/certs/private.pem");
	free(text);
}

TEST(string_format_alloc, gives_null_when_formatting_fails)
{
	fail_nth failure("vasprintf", 1);

	EXPECT_EQ(string_format_alloc("%d", 1), nullptr);
}
