#include "movra_fleet/agent_core/agent_core.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/fake_tervbus.h"
#include "fakes/fake_udsutils.h"
#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "support/captured_output.h"
#include "support/connected_agent.h"
#include "support/event.h"
#include "support/fail_nth.h"
#include "support/identity_files.h"
#include "support/verbosity_scope.h"

namespace
{

using texts = std::vector<std::string>;

constexpr const char source[] = "movra_fleet";
constexpr const char no_config[] = "No config";

long thread_count()
{
	std::filesystem::directory_iterator tasks("/proc/self/task");
	return std::distance(begin(tasks), end(tasks));
}

// The threads of a process that has run one before: a sanitizer may have started its own by then.
long idle_thread_count()
{
	std::filesystem::path task;
	std::thread([&] { task = "/proc/self/task/" + std::to_string(gettid()); }).join();
	while (std::filesystem::exists(task))
		std::this_thread::yield();
	return thread_count();
}

// A thread that has been joined leaves the list a moment later.
bool threads_settle_at(long count)
{
	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (thread_count() != count && std::chrono::steady_clock::now() < end)
		std::this_thread::yield();
	return thread_count() == count;
}

void call(void *function)
{
	(*static_cast<std::function<void()> *>(function))();
}

struct agent_core : testing::Test {
	verbosity_scope scope{LOG_INFO};
	identity_files identity;
	std::string certificates = identity.directory();
	long threads_before = idle_thread_count();
	std::unique_ptr<captured_output> output = std::make_unique<captured_output>();
	fake_ecu ecu;
	agent_settings settings = {"localhost", 9133, "/EDATA/UDS", certificates.c_str(), 1000, LOG_INFO, nullptr};
	agent_ctx *ctx = nullptr;

	void SetUp() override
	{
		fake_bus::reset();
	}

	void TearDown() override
	{
		EXPECT_EQ(agent_deinit(ctx), 0);
		EXPECT_TRUE(threads_settle_at(threads_before)) << "a thread is left running";
		output.reset();
	}

	void start()
	{
		ctx = agent_init(&settings, no_config);
		ASSERT_NE(ctx, nullptr);
	}

	texts starts()
	{
		texts urls;
		for (const std::string &made : fake_bus::calls())
			if (made.starts_with("tervbus_init_client "))
				urls.push_back(made.substr(made.find(' ') + 1));
		return urls;
	}

	// The level that the transport library was given, or -100 when it was not called.
	int library_level()
	{
		std::vector<fake_uds_call> made = ecu.calls("movra_uds_util_debug_init");
		return made.size() == 1 ? made[0].verbosity : -100;
	}
};

}

TEST_F(agent_core, refuses_to_start_without_a_config_source)
{
	settings.verbosity = LOG_D3BG;

	EXPECT_EQ(agent_init(&settings, nullptr), nullptr);

	EXPECT_EQ(output->messages(), (texts{"Invalid uds config"}));
	EXPECT_TRUE(output->has_line("ERR", source, "Invalid uds config"));
	EXPECT_EQ(verbosity, LOG_INFO);
	EXPECT_TRUE(ecu.calls().empty());
	EXPECT_TRUE(fake_bus::calls().empty());
}

TEST_F(agent_core, prints_its_banner_from_info_on)
{
	for (int level : {LOG_ERR, LOG_WARN, LOG_INFO, LOG_DBG}) {
		SCOPED_TRACE(level);
		output->clear();
		settings.verbosity = level;
		start();
		EXPECT_EQ(verbosity, level);
		EXPECT_EQ(output->count("INFO", source, "Orlo Movra Quillet Version: -"), level >= LOG_INFO ? 1u : 0u);
		EXPECT_EQ(agent_deinit(ctx), 0);
		ctx = nullptr;
	}
}

TEST_F(agent_core, connects_to_the_broker_of_its_settings)
{
	const std::string long_host(2000, 'h');
	const struct {
		const char *host;
		uint32_t port;
		std::string url;
	} rows[] = {
			{"localhost", 9133, "tcp://localhost:9133"},
			{"10.1.2.3", 70000, "tcp://10.1.2.3:70000"},
			{"broker", 0, "tcp://broker:0"},
			{"broker", 4294967295u, "tcp://broker:-1"},
			{long_host.c_str(), 9133, "tcp://" + long_host.substr(0, 1023 - 6)},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.url);
		fake_bus::reset();
		settings.broker_host = row.host;
		settings.broker_port = row.port;
		start();
		EXPECT_EQ(starts(), (texts{row.url}));
		EXPECT_EQ(agent_deinit(ctx), 0);
		ctx = nullptr;
	}
}

TEST_F(agent_core, loads_its_identity_from_the_certificate_directory)
{
	start();

	EXPECT_EQ(fake_bus::started_with().private_key, std::string("the key", 8));
	EXPECT_TRUE(output->has_line("INFO", "movrabus", "node=UNIT-1, cert_dir=" + certificates));
}

TEST_F(agent_core, has_its_pool_and_its_timers_before_the_bus_client_starts)
{
	long threads_at_start = 0;
	bool pool_told = false;
	fake_bus::on_call("tervbus_init_client", [&] {
		threads_at_start = thread_count();
		pool_told = output->error_text() == "threadpool_init:247: created thread at 0 index\n";
	});
	start();

	EXPECT_TRUE(pool_told);
	EXPECT_EQ(threads_at_start, threads_before + 2);
	EXPECT_NE(ctx->pool, nullptr);
	EXPECT_NE(ctx->timers, nullptr);
	EXPECT_NE(ctx->bus, nullptr);
}

TEST_F(agent_core, hands_messages_of_the_bus_to_the_request_intake_with_itself_as_the_context)
{
	start();
	output->clear();

	fake_bus::message("not json", {fake_bus::unit("UNIT-2")});
	EXPECT_TRUE(output->has_line("ERR", source, "Could not parse JSON message not json"));

	fake_bus::message(R"({"reply-id":"r1"})", {fake_bus::unit("UNIT-2")});
	EXPECT_TRUE(output->has_line("ERR", source, "target not found in JSON message"));
	EXPECT_EQ(ctx->pending_jobs, nullptr);
}

TEST_F(agent_core, sets_the_level_of_the_transport_library)
{
	settings.verbosity = 5;
	fake_bus::on_call("tervbus_init_client", [this] { EXPECT_EQ(library_level(), -100); }); // it is the last step
	start();

	EXPECT_EQ(library_level(), 5);
}

TEST_F(agent_core, has_no_configuration_to_load)
{
	EXPECT_EQ(load_agent_config(nullptr, no_config), 0);
	EXPECT_EQ(load_agent_config(nullptr, nullptr), 0);
}

TEST_F(agent_core, reports_a_context_that_cannot_be_allocated)
{
	fail_nth failure("calloc", 1, ENOMEM, fail_nth::this_thread);

	EXPECT_EQ(agent_init(&settings, no_config), nullptr);

	EXPECT_EQ(output->messages("ERR"), (texts{"Memory Allocation failed"}));
	EXPECT_EQ(output->records().back().source, source);
	EXPECT_EQ(library_level(), LOG_INFO);
	EXPECT_TRUE(fake_bus::calls().empty());
}

TEST_F(agent_core, reports_a_pool_that_cannot_be_started_and_connects_nothing)
{
	fail_nth failure("calloc", 2, ENOMEM, fail_nth::this_thread);

	EXPECT_EQ(agent_init(&settings, no_config), nullptr);

	EXPECT_EQ(output->messages("ERR"), (texts{"Failed to spawn threadpool"}));
	EXPECT_EQ(output->error_lines(), (texts{"threadpool_init:221: Can't Allocate memory"}));
	EXPECT_EQ(library_level(), LOG_INFO);
	EXPECT_TRUE(fake_bus::calls().empty());
}

TEST_F(agent_core, takes_everything_down_when_the_identity_is_missing)
{
	settings.cert_dir = "/nowhere";

	EXPECT_EQ(agent_init(&settings, no_config), nullptr);

	EXPECT_TRUE(output->has_line("ERR", "movrabus", "Failed to load identity certificate from /nowhere"));
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "Timer de init success"));
	EXPECT_EQ(library_level(), LOG_INFO);
	EXPECT_EQ(starts(), (texts{}));
}

TEST_F(agent_core, takes_everything_down_when_the_bus_client_does_not_start)
{
	fake_bus::script("tervbus_init_client", -1);

	EXPECT_EQ(agent_init(&settings, no_config), nullptr);

	EXPECT_EQ(output->count("ERR", "movrabus", "Failed to init tervbus client err=-1."), 2u);
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "Timer de init success"));
	EXPECT_EQ(library_level(), LOG_INFO);
}

TEST_F(agent_core, runs_without_timers)
{
	fail_nth failure("epoll_create", 1, EMFILE);
	start();

	EXPECT_EQ(ctx->timers, nullptr);
	EXPECT_NE(ctx->bus, nullptr);
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "epoll_create failed"));
}

TEST_F(agent_core, leaves_nothing_behind_whichever_call_of_its_start_fails)
{
	const struct {
		const char *function;
		int error;
	} rows[] = {
			{"calloc", ENOMEM},
			{"malloc", ENOMEM},
			{"strdup", ENOMEM},
			{"vasprintf", ENOMEM},
			{"open", EMFILE},
			{"read", EIO},
			{"lseek", EIO},
			{"epoll_create", EMFILE},
			{"epoll_ctl", ENOSPC},
			{"eventfd", EMFILE},
			{"pthread_create", EAGAIN},
			{"pthread_create", -1},
	};
	for (const auto &row : rows) {
		for (unsigned nth = 1;; ++nth) {
			SCOPED_TRACE(testing::Message() << row.function << " " << nth);
			ASSERT_LT(nth, 200u);
			fake_bus::reset();
			bool fired = false;
			{
				fail_nth failure(row.function, nth, row.error, fail_nth::this_thread);
				ctx = agent_init(&settings, no_config);
				fired = failure.fired();
			}
			EXPECT_EQ(agent_deinit(ctx), 0);
			ctx = nullptr;
			EXPECT_TRUE(threads_settle_at(threads_before));
			if (!fired)
				break;
		}
	}
}

TEST_F(agent_core, ends_pauses_before_it_stops_the_bus_client)
{
	start();
	bool stopping = false;
	fake_bus::on_call("tervbus_stop_client", [&] { stopping = agent_stop_requested(ctx); });
	EXPECT_EQ(agent_deinit(ctx), 0);
	ctx = nullptr;

	EXPECT_TRUE(stopping);
}

TEST_F(agent_core, sends_no_reply_once_the_bus_client_is_being_stopped)
{
	start();
	fake_bus::on_call("tervbus_stop_client", [&] { agent_send_reply(ctx, "{}", "UNIT-2"); });
	EXPECT_EQ(agent_deinit(ctx), 0);
	ctx = nullptr;

	EXPECT_TRUE(output->has_line("ERR", "movrabus", "Movra Bus connection is NULL"));
	EXPECT_TRUE(fake_bus::sent().empty());
}

TEST_F(agent_core, stops_the_bus_client_then_the_pool_then_the_timers)
{
	start();
	event started, go;
	std::function<void()> job = [&] {
		started.raise();
		EXPECT_TRUE(go.wait());
	};
	ASSERT_EQ(threadpool_add_work(ctx->pool, call, &job), 0);
	ASSERT_TRUE(started.wait());
	bool pool_was_up = false, timers_were_up = false;
	fake_bus::on_call(
			"tervbus_fini_ll", [&] { pool_was_up = output->error_text().find("job_flush") == std::string::npos; });
	std::thread stop([&] { EXPECT_EQ(agent_deinit(ctx), 0); });

	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (output->error_text().find("job_flush:155") == std::string::npos && std::chrono::steady_clock::now() < end)
		std::this_thread::yield();
	timers_were_up = !output->has_line("ERR", "tvtimer", "Timer de init success");
	go.raise();
	stop.join();
	ctx = nullptr;

	EXPECT_EQ(fake_bus::count_calls("tervbus_stop_client"), 1u);
	EXPECT_TRUE(pool_was_up);
	EXPECT_TRUE(timers_were_up);
	EXPECT_TRUE(output->has_line("ERR", "tvtimer", "Timer de init success"));
}

TEST_F(agent_core, ends_while_a_jobs_receive_goes_on_for_ever)
{
	start();
	event receiving, closed;
	ecu.on_call = [&](const fake_uds_call &call) {
		if (call.function == "recv_diag_command") {
			receiving.raise();
			EXPECT_TRUE(closed.wait()) << "nobody has closed the channel";
		}
		if (call.function == "transport_deinit")
			closed.raise();
	};
	diag_job *job = new_test_job();
	add_test_transport(job);
	add_test_command(job, {0x22});
	ASSERT_TRUE(pending_jobs_append(ctx, job));
	ASSERT_EQ(threadpool_add_work(ctx->pool, diag_job_worker, ctx), 0);
	ASSERT_TRUE(receiving.wait());

	fail_nth time_is_over("pthread_cond_clockwait", 1, ETIMEDOUT);
	EXPECT_EQ(agent_deinit(ctx), 0);
	ctx = nullptr;

	EXPECT_EQ(ecu.calls("transport_deinit").size(), 1u);
}

TEST_F(agent_core, frees_jobs_that_the_worker_has_not_come_to)
{
	// What is not freed is a finding of the leak sanitizer.
	start();
	for (const char *id : {"one", "two"}) {
		diag_job *job = static_cast<diag_job *>(calloc(1, sizeof(diag_job)));
		ASSERT_NE(job, nullptr);
		job->reply_id = strdup(id);
		job->commands = static_cast<uds_command *>(calloc(1, sizeof(uds_command)));
		job->commands->request = static_cast<uint8_t *>(calloc(1, 4));
		job->command_count = 1;
		ASSERT_TRUE(pending_jobs_append(ctx, job));
	}
	EXPECT_EQ(agent_deinit(ctx), 0);
	ctx = nullptr;
}

TEST_F(agent_core, does_nothing_to_end_without_a_context)
{
	EXPECT_EQ(agent_deinit(nullptr), 0);

	EXPECT_EQ(output->text(), "");
	EXPECT_TRUE(fake_bus::calls().empty());
	EXPECT_TRUE(ecu.calls().empty());
}

TEST_F(agent_core, releases_what_a_holder_points_to_and_leaves_the_holder)
{
	start();
	agent_ctx *holder = ctx;
	agent_release(&holder);
	EXPECT_EQ(holder, ctx);
	ctx = nullptr;
	EXPECT_EQ(fake_bus::count_calls("tervbus_stop_client"), 1u);

	holder = nullptr;
	agent_release(&holder);
	EXPECT_EQ(fake_bus::count_calls("tervbus_stop_client"), 1u);
}
