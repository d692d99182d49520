// Full-message capture against this binary's collector, with the real writer thread; every scenario runs in a
// child process (support/in_child.h).
#include "tong/tong.h"
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>
#include "core/gvar.h"
#include "support/in_child.h"
#include "support/tong_file.h"
#include "support/tracing.h"
#include "tong/deffered_que.h"
#include "varnix.h"

namespace varnix {
namespace {

using test::in_child;
using test::TestIpc;

std::vector<std::string> log_since(size_t from) { return test::log_messages(TestIpc::get().read_log(), from); }

int restart() { return TRAN_DONE() != 0 ? -1 : test::init_quietly(); }

// The switch, the length check and its messages, three records byte for byte, then restarts in quick succession
// with captures running: one writer throughout, and it goes on writing.
TEST(Tong, CapturesEachTelegramByteForByteAndRestartsKeepOneWriter) {
    in_child([] {
        TestIpc& ipc = TestIpc::get();
        ASSERT_EQ(test::start_tracing(), 0);
        for (int t = 100; t < 120; ++t) EXPECT_EQ(get_sf_flag(t), "SFUUUUUUUUSFUUUUSFSF"[t - 100]) << t;
        std::string tel(1234, ' ');
        for (size_t i = 0; i < tel.size(); ++i) tel[i] = static_cast<char>('a' + i % 26);
        tel.replace(9, 32, "GID-0123456789abcdefghijklmnopqr");
        tel[600] = '\0';
        EXPECT_EQ(save_tong_log4c(1, tel.data(), 100, 100), 0);  // capture off: no message, no record
        ipc.que_info().tong_log_flag = '1';
        const size_t from = ipc.read_log().size();
        EXPECT_EQ(save_tong_log4c(1, tel.data(), 511, 100), VARNIX_RC_SHORT_TMSG);
        EXPECT_EQ(save_tong_log4c(1, "ABCDEFGHIJKL", -1, 101), VARNIX_RC_SHORT_TMSG);
        const std::string check = " 통전문 길이 체크 오류(최소 길이(512)보다 작음, ", t511 = tel.substr(0, 511);
        EXPECT_EQ(log_since(from), (std::vector<std::string>{
                                       ">> TRAN_START_API [" + t511 + "]" + check + "511 byte) : 내용|" + t511 + "|",
                                       ">> TRAN_END_API [ABCDEFGHI]" + check + "12 byte) : 내용|ABCDEFGHIJKL|"}));
        EXPECT_EQ(save_tong_log4c(1, tel.data(), 512, 100), 0);
        EXPECT_EQ(save_tong_log4c(1, tel.data(), 1234, 101), 0);  // a NUL inside is written like any byte
        EXPECT_EQ(save_tong_log4c(1, tel.data(), -1, 102), 0);    // up to the NUL: 600 bytes
        const std::string path = test::tong_data_path();
        ASSERT_TRUE(test::wait_for([&] { return test::read_file(path).size() == 512 + 1234 + 600 + 3 * 118; }));
        const std::string file = test::read_file(path);
        test::expect_tong_record(file.substr(0, 630), tel.substr(0, 512), 'S');
        test::expect_tong_record(file.substr(630, 1352), tel, 'F');
        test::expect_tong_record(file.substr(1982), tel.substr(0, 600), 'U');

        const int threads = test::thread_count();
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(save_tong_log4c(1, tel.data(), 512, 100), 0);
            ASSERT_EQ(restart(), 0);
            EXPECT_EQ(test::thread_count(), threads) << i;
        }
        tel.replace(9, 5, "LAST-");
        EXPECT_EQ(save_tong_log4c(1, tel.data(), 512, 100), 0);
        ASSERT_TRUE(test::wait_for([&] { return test::read_file(path).find("LAST-") != std::string::npos; }));
        ipc.que_info().tong_log_flag = '0';
    });
}

// The writer is held in the open of its data file (a FIFO without a reader).  Captures fill what the queue has
// left; the rest are dropped, freed, counted and reported at the 1st and every 100th.  A restart cannot stop the
// held writer in time: it starts no second one and leaves the queue alone.  Once the writer has gone, the next
// restart empties the queue and frees what it held.
TEST(Tong, QueueFullDropsAndReportsAndAHeldWriterIsNeverDoubled) {
    in_child([] {
        TestIpc& ipc = TestIpc::get();
        ASSERT_EQ(test::start_tracing(), 0);
        ipc.que_info().tong_log_flag = '1';
        const std::string path = test::tong_data_path();
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        const int32_t n = 32 << 10;
        const std::string tel(n, 't');
        ASSERT_EQ(save_tong_log4c(1, tel.data(), n, 100), 0);
        ASSERT_TRUE(test::wait_for([] { return get_deffered_queueing() == 0; }));  // the writer has it in hand
        static const char other[kDeferredPayload] = {};
        uint32_t put = 0;
        while (put < kDeferredSlots - 4 && put_deffered_que(other, kDeferredPayload, 2) == 1) ++put;  // not ours to free
        ASSERT_EQ(put, kDeferredSlots - 4);
        const size_t base = test::live_heap_bytes(), from = ipc.read_log().size();
        for (int i = 0; i < 300; ++i) EXPECT_EQ(save_tong_log4c(7, tel.data(), n, 101), 0);
        EXPECT_EQ(__atomic_load_n(&nfailcount, __ATOMIC_RELAXED), 297);
        const std::string fail = "<!> put_deffered_que fail.(cnt ";
        EXPECT_EQ(log_since(from), (std::vector<std::string>{fail + "1) [tid:7].", fail + "100) [tid:7].",
                                                              fail + "200) [tid:7]."}));
        EXPECT_LT(test::live_heap_bytes(), base + 3 * tel.size() + (1 << 20));  // 297 leaked would be 9 MB

        const int threads = test::thread_count();
        const size_t before_restart = ipc.read_log().size();
        ASSERT_EQ(restart(), 0);
        EXPECT_EQ(test::thread_count(), threads);
        EXPECT_EQ(get_deffered_queueing(), kDeferredSlots - 1);
        EXPECT_NE(ipc.read_log().find("<!> main_thread still running after 200 ms: not joined, no new one started",
                                      before_restart),
                  std::string::npos);

        const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        std::string got;
        ASSERT_TRUE(test::wait_for([&] {
            char buf[4096];
            for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
            return got.size() == tel.size() + 118 && test::thread_count() == threads - 1;
        }));
        test::expect_tong_record(got, tel, 'S');
        ASSERT_EQ(restart(), 0);
        EXPECT_EQ(test::thread_count(), threads);
        EXPECT_EQ(get_deffered_queueing(), 0u);
        EXPECT_LT(test::live_heap_bytes(), base + (1 << 20));
        ipc.que_info().tong_log_flag = '0';
        EXPECT_EQ(close(fd), 0);
    });
}

}  // namespace
}  // namespace varnix
