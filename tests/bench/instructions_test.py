"""What scripts/bench reads from the files that callgrind writes. Those in callgrind/ are parts of real ones."""

import os
import sys
import unittest
import unittest.mock

SOURCE_DIR = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(SOURCE_DIR, "bench", "report"))
import instructions  # noqa: E402


def recorded(name):
    path = os.path.join(SOURCE_DIR, "tests", "bench", "callgrind", name)
    with open(path, encoding="utf-8") as file:
        return file.read()


def per_call(text, *function):
    return instructions.per_call(text.splitlines(), *function)


class Runner:
    """Ends each command with what was recorded, as callgrind's file."""

    def __init__(self, text):
        self.text = text
        self.broken = []

    def program(self, name):
        return os.path.join("bin", name)

    def output_of(self, command):
        if self.text is None:
            self.broken.append("ended with 1")
            return None
        option = "--callgrind-out-file="
        [path] = [word[len(option):] for word in command if word.startswith(option)]
        with open(path, "w", encoding="utf-8") as file:
            file.write(self.text)
        return ""


class PerCallTest(unittest.TestCase):
    def test_all_calls_count_wherever_they_are_made(self):
        # The compiler peeled the loop: one call of 1,410 instructions, and 63 of 88,151 together.
        self.assertEqual((1410 + 88151) / 64, per_call(recorded("find_subscriber.txt")))

    def test_what_the_function_calls_is_part_of_it(self):
        own = 1792 + 1216 + 64 + 192
        below = 80281 + 6016
        self.assertEqual((own + below) / 64, per_call(recorded("find_subscriber.txt")))

    def test_another_function_may_be_asked_for(self):
        self.assertEqual(80281 / 64, per_call(recorded("find_subscriber.txt"), "Subscriptions::covering("))

    def test_a_call_from_one_operation_to_another_is_not_counted_twice(self):
        inner = "fn=BatchTimes::countedOperation<a>()\ncfn=BatchTimes::countedOperation<b>()\ncalls=64 0\n0 999\n"
        sample = recorded("find_subscriber.txt")
        self.assertEqual(per_call(sample), per_call(sample + inner))

    def test_a_second_event_is_not_the_instructions(self):
        text = "events: Ir Dr\nfn=main\ncfn=BatchTimes::countedOperation<a>()\ncalls=2 0\n0 30 7\n"
        self.assertEqual(15, per_call(text))


class UnreadableTest(unittest.TestCase):
    def test_a_file_without_the_function_says_so(self):
        with self.assertRaisesRegex(instructions.Unreadable, "no call of BatchTimes::countedOperation: was .* inlined"):
            per_call(recorded("no_operation.txt"))

    def test_an_empty_file_says_so(self):
        with self.assertRaisesRegex(instructions.Unreadable, "no call of"):
            per_call("")

    def test_a_file_that_ends_before_a_cost_says_so(self):
        text = recorded("find_subscriber.txt")
        with self.assertRaisesRegex(instructions.Unreadable, "no cost: ''"):
            per_call(text[:text.index("0 88151")])

    def test_a_file_of_other_events_says_so(self):
        text = recorded("find_subscriber.txt").replace("events: Ir", "events: Dr")
        with self.assertRaisesRegex(instructions.Unreadable, "not Ir: events: Dr"):
            per_call(text)


class CountTest(unittest.TestCase):
    WANTED = [("subscriptions_benchmark", "BM_FindSubscriber/registrations:10000/real_time")]

    def setUp(self):
        self.find_valgrind("/usr/bin/valgrind")

    def find_valgrind(self, where):
        """None is run here, so none has to be there."""
        patch = unittest.mock.patch("shutil.which", return_value=where)
        patch.start()
        self.addCleanup(patch.stop)

    def test_each_benchmark_has_its_count(self):
        runner = Runner(recorded("find_subscriber.txt"))
        self.assertEqual({self.WANTED[0]: 89561 / 64}, instructions.count(runner, self.WANTED))
        self.assertEqual([], runner.broken)

    def test_a_file_that_cannot_be_read_names_its_benchmark(self):
        runner = Runner(recorded("no_operation.txt"))
        self.assertEqual({}, instructions.count(runner, self.WANTED))
        [problem] = runner.broken
        self.assertRegex(problem, "^subscriptions_benchmark: BM_FindSubscriber/.*no call of")

    def test_a_program_that_failed_has_no_count(self):
        runner = Runner(None)
        self.assertEqual({}, instructions.count(runner, self.WANTED))
        self.assertEqual(["ended with 1"], runner.broken)

    def test_without_valgrind_the_run_says_what_installs_it(self):
        self.find_valgrind(None)
        runner = Runner(recorded("find_subscriber.txt"))
        self.assertEqual({}, instructions.count(runner, self.WANTED))
        self.assertRegex(runner.broken[0], "valgrind is missing; scripts/install-deps")

    def test_one_benchmark_alone_is_run(self):
        command = instructions.command("bin/registry_benchmark", "BM_Register/registrations:100/real_time", "out")
        self.assertIn("--benchmark_filter=^BM_Register/registrations:100/real_time$", command)


class Processes(Runner):
    """Writes down what two processes took: 1,000,000 instructions each, and 300 and 40 for an operation."""

    def __init__(self, broken_case=None, ending="totals: {}"):
        super().__init__("")
        self.memory = "/dev/shm"
        self.broken_case = broken_case
        self.ending = ending

    def output_of(self, command):
        program = command.index(os.path.join("bin", "process_bench"))
        case, _, _, operations = command[program + 1:program + 5]
        if case == self.broken_case:
            self.broken.append("ended with 1")
            return None
        [pattern] = [word.split("=", 1)[1] for word in command if word.startswith("--callgrind-out-file=")]
        for pid, each in (("4711", 300), ("4712", 40)):
            with open(pattern.replace("%p", pid), "w", encoding="utf-8") as file:
                file.write("events: Ir\n" + self.ending.format(1000000 + each * int(operations)) + "\n")
        return "{}"


class CountTogetherTest(unittest.TestCase):
    READ = instructions.Together("counted_uncached_read", "ours")
    WRITE = instructions.Together("counted_durable_write", "floor")

    def test_an_operation_is_the_difference_of_many_and_few_of_all_processes(self):
        runner = Processes()
        counted = instructions.count_together(runner, [self.READ, self.WRITE])
        self.assertEqual({self.READ: 340, self.WRITE: 340}, counted)
        self.assertEqual([], runner.broken)

    def test_a_run_that_failed_leaves_the_others(self):
        runner = Processes(broken_case=self.WRITE.case)
        self.assertEqual({self.READ: 340}, instructions.count_together(runner, [self.READ, self.WRITE]))
        self.assertEqual(["ended with 1"] * 2, runner.broken)

    def test_a_process_that_was_killed_names_its_case(self):
        runner = Processes(ending="")
        self.assertEqual({}, instructions.count_together(runner, [self.READ]))
        self.assertRegex(runner.broken[0], "^counted_uncached_read ours: .*no line with one total")

    def test_nothing_of_the_callers_environment_is_passed_on(self):
        command = instructions.command_together("bin/process_bench", self.READ, 500, "/dev/shm", "out")
        self.assertEqual(["env", "-i"], command[:2])
        self.assertIn("--trace-children=yes", command)
        tunables = [word for word in command if word.startswith("GLIBC_TUNABLES=")]
        self.assertRegex(tunables[0], "glibc.cpu.hwcaps=.*-AVX2,.*-ERMS.*glibc.malloc.tcache_count=65535")

    def test_the_total_is_read_from_a_real_file(self):
        self.assertEqual(37236837, instructions.total(recorded("find_subscriber.txt").splitlines()))


class WhyNotTest(unittest.TestCase):
    def on(self, machine="x86_64", library="glibc 2.36", valgrind="/usr/bin/valgrind"):
        with unittest.mock.patch("platform.machine", return_value=machine), \
                unittest.mock.patch("os.confstr", return_value=library), \
                unittest.mock.patch("shutil.which", return_value=valgrind):
            return instructions.why_not()

    def test_the_machine_of_the_figures_can(self):
        self.assertIsNone(self.on())

    def test_others_say_what_they_are(self):
        self.assertRegex(self.on(machine="aarch64"), "this machine is aarch64")
        self.assertRegex(self.on(library="glibc 2.41"), "the C library is glibc 2.41")
        self.assertRegex(self.on(valgrind=None), "valgrind is missing; scripts/install-deps")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
