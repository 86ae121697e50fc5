#include "support/captured_output.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

TEST(captured_output, parses_the_lines_of_the_log)
{
	captured_output output;
	log_message(LOG_ERR, "src/movra_fleet", 123, "first %d", 1);
	log_message(LOG_INFO, "movrabus", 7, "second");
	log_message(9, "tvtimer", 8, "no label");
	printf("not the log's\n");

	std::vector<log_record> records = output.records();

	ASSERT_EQ(records.size(), 4u);
	EXPECT_EQ(records[0].level, "ERR");
	EXPECT_EQ(records[0].source, "movra_fleet");
	EXPECT_EQ(records[0].line, 123);
	EXPECT_EQ(records[0].message, "first 1");
	EXPECT_EQ(records[2].level, "");
	EXPECT_EQ(records[2].source, "tvtimer");
	EXPECT_EQ(records[3].source, "");
	EXPECT_EQ(output.messages(), (std::vector<std::string>{"first 1", "second", "no label", "not the log's"}));
	EXPECT_EQ(output.messages("INFO"), (std::vector<std::string>{"second"}));
	EXPECT_TRUE(output.has_line("INFO", "movrabus", "second"));
	EXPECT_FALSE(output.has_line("ERR", "movrabus", "second"));
	EXPECT_EQ(output.count("ERR", "movra_fleet", "first 1"), 1u);
}

TEST(captured_output, keeps_standard_error_apart)
{
	captured_output output;
	printf("to output\n");
	fprintf(stderr, "to error\n");

	EXPECT_EQ(output.text(), "to output\n");
	EXPECT_EQ(output.error_lines(), (std::vector<std::string>{"to error"}));
}

TEST(captured_output, forgets_what_was_cleared)
{
	captured_output output;
	printf("before\n");
	output.clear();
	printf("after\n");

	EXPECT_EQ(output.text(), "after\n");
}

TEST(verbosity_scope, restores_the_verbosity)
{
	int before = verbosity;
	{
		verbosity_scope scope(before + 3);
		EXPECT_EQ(verbosity, before + 3);
	}
	EXPECT_EQ(verbosity, before);
}

TEST(fail_nth, fails_the_nth_call_alone)
{
	fail_nth failure("strdup", 2, EAGAIN);
	char *first = strdup("a");
	char *second = strdup("b");
	int error = errno;
	char *third = strdup("c");

	EXPECT_NE(first, nullptr);
	EXPECT_EQ(second, nullptr);
	EXPECT_EQ(error, EAGAIN);
	EXPECT_NE(third, nullptr);
	EXPECT_TRUE(failure.fired());
	EXPECT_EQ(failure.calls(), 3u);
	free(first);
	free(third);
}

TEST(fail_nth, has_not_fired_when_the_call_did_not_come)
{
	fail_nth failure("strdup", 2);
	free(strdup("a"));

	EXPECT_FALSE(failure.fired());
}

TEST(fail_nth, gives_a_pthread_error_as_the_result)
{
	fail_nth failure("pthread_create", 1, EAGAIN);
	pthread_t thread = {};

	EXPECT_EQ(pthread_create(
					  &thread, nullptr, [](void *) -> void * { return nullptr; }, nullptr),
			EAGAIN);
}

TEST(fail_nth, gives_minus_one_for_a_system_call)
{
	fail_nth failure("fcntl", 1, EIO);

	EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFL), -1);
	EXPECT_EQ(errno, EIO);
	EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFL), -1);
}

void allocate_on_another_thread(void **block)
{
	pthread_t thread = {};
	ASSERT_EQ(pthread_create(
					  &thread, nullptr,
					  [](void *out) -> void * {
						  *static_cast<void **>(out) = malloc(16);
						  return nullptr;
					  },
					  block),
			0);
	pthread_join(thread, nullptr);
}

TEST(fail_nth, leaves_other_threads_alone_when_told_so)
{
	fail_nth failure("malloc", 1, ENOMEM, fail_nth::this_thread);
	void *block = nullptr;
	allocate_on_another_thread(&block);

	EXPECT_NE(block, nullptr);
	EXPECT_FALSE(failure.fired());
	free(block);
}

TEST(fail_nth, leaves_its_own_thread_alone_when_told_so)
{
	fail_nth failure("malloc", 1, ENOMEM, fail_nth::other_threads);
	void *own = malloc(16);
	void *block = own;
	allocate_on_another_thread(&block);

	EXPECT_NE(own, nullptr);
	EXPECT_EQ(block, nullptr);
	EXPECT_TRUE(failure.fired());
	free(own);
}

TEST(fail_nth, is_disarmed_at_the_end_of_its_scope)
{
	{
		fail_nth failure("calloc", 1);
	}
	void *block = calloc(1, 16);

	EXPECT_NE(block, nullptr);
	free(block);
}
