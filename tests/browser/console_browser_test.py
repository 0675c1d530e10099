#!/usr/bin/env python3
# The vd-standin browser console in headless Chromium, against the real stand-in and daemon.
#
#     console_browser_test.py --build BUILD_DIR --modules TEST_MODULE_DIR [--screenshot PNG]
#
# One device root with the settings test module, one vd-standin serving it with
# "--http 127.0.0.1:0", one vigild, one browser. The scenarios go through the page as a person
# would: change a boolean and a list in the form and apply, then apply a value the module
# objects to. Every wait polls with a bound. Exit status 77 (skipped) when Chromium, its driver
# or Selenium is missing.

import argparse
import json
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

SKIP = 77
TIMEOUT = 20
CHROMIUM_FLAGS = ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
                  "--disable-background-networking --disable-component-update --disable-sync "
                  "--no-proxy-server --window-size=1400,1750").split()
MODULE = "SettingsModule"

try:
    from selenium import webdriver
    from selenium.common.exceptions import TimeoutException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import Select, WebDriverWait
except ImportError:
    webdriver = None

ARGS = None
ENV = {}


def wait_for(what, predicate):
    deadline = time.monotonic() + TIMEOUT
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out: {what}")
        time.sleep(0.05)


def api(path):
    with urllib.request.urlopen(ENV["url"] + path.lstrip("/"), timeout=10) as reply:
        return json.load(reply)


def setting(document, module, name):
    for entry in (document or {}).get(module, {}).get("settings", []):
        if entry.get("name") == name:
            return entry.get("value")
    return None


def start_processes():
    root = tempfile.mkdtemp(prefix="/tmp/vdb.")  # short: the service socket lives in it
    ENV["root"] = root
    for folder in ("sdcard", "system/lib64", "dev/__properties__"):
        os.makedirs(os.path.join(root, folder))
    with open(os.path.join(root, "dev/__properties__/persist.sys.vd.storage_path"), "w") as f:
        f.write("/sdcard/")
    shutil.copy(os.path.join(ARGS.modules, "lib_vd_settings.so"), os.path.join(root, "system/lib64"))

    with open(os.path.join(root, "standin.stderr"), "w") as log:
        standin = subprocess.Popen(
            [os.path.join(ARGS.build, "tools/standin/vd-standin"), "--root", root, "serve",
             "--http", "127.0.0.1:0"],
            stdout=subprocess.PIPE, stderr=log)
    ENV["standin"] = standin
    printed = b""
    deadline = time.monotonic() + TIMEOUT
    while not re.search(rb"http://127\.0\.0\.1:\d+/", printed):
        left = deadline - time.monotonic()
        if left <= 0 or not select.select([standin.stdout], [], [], left)[0]:
            raise AssertionError(f"vd-standin printed no address: {printed!r}")
        chunk = os.read(standin.stdout.fileno(), 4096)
        if not chunk:
            raise AssertionError(f"vd-standin ended: {printed!r}")
        printed += chunk
    ENV["url"] = re.search(rb"http://127\.0\.0\.1:\d+/", printed).group(0).decode()

    env = {k: v for k, v in os.environ.items() if not k.startswith("VIGILD_")}
    env.update(VIGILD_ROOT=root, VIGILD_TIME_SCALE="0.01")
    with open(os.path.join(root, "vigild.stderr"), "w") as log:
        ENV["daemon"] = subprocess.Popen([os.path.join(ARGS.build, "vigild")], env=env, stderr=log)
    wait_for("the daemon asks for a command", lambda: api("/api/status")["waiting"] > 0)


# Ends both; False when vd-standin did not stop cleanly (a crash, a sanitizer report).
def stop_processes():
    clean = True
    for name in ("daemon", "standin"):
        process = ENV.get(name)
        if not process:
            continue
        if process.poll() is None:
            process.send_signal(signal.SIGTERM if name == "standin" else signal.SIGKILL)
            process.wait(timeout=TIMEOUT)
        if process.stdout:
            process.stdout.close()
        if name == "standin" and process.returncode != 0:
            with open(os.path.join(ENV["root"], "standin.stderr")) as log:
                print(f"vd-standin ended with status {process.returncode}:\n{log.read()}")
            clean = False
    if ENV.get("root"):
        shutil.rmtree(ENV["root"], ignore_errors=True)
    return clean


class ConsolePage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        start_processes()
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        ENV["profile"] = tempfile.mkdtemp(prefix="vdb-chromium.")
        for flag in CHROMIUM_FLAGS + [f"--user-data-dir={ENV['profile']}"]:
            options.add_argument(flag)
        cls.browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")),
                                       options=options)
        cls.browser.get(ENV["url"])
        cls.wait = WebDriverWait(cls.browser, TIMEOUT, poll_frequency=0.05)
        cls.wait.until(lambda b: b.find_element(By.ID, "link-badge").text == "live")

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        shutil.rmtree(ENV.get("profile", ""), ignore_errors=True)

    def field(self, name):
        return self.browser.find_element(
            By.CSS_SELECTOR, f'.field[data-module="{MODULE}"][data-setting="{name}"]')

    def control(self, name):
        return self.field(name).find_element(By.CSS_SELECTOR, "input, select")

    def trace_rows(self, name):
        Select(self.browser.find_element(By.ID, "trace-filter")).select_by_value(name)
        return [r for r in self.browser.find_elements(By.CSS_SELECTOR, "#trace tbody tr[data-seq]")
                if r.is_displayed()]

    def apply_and_wait(self):
        apply = self.browser.find_element(By.ID, "apply")
        self.assertTrue(apply.is_enabled())
        before = (api("/api/config").get("apply") or {}).get("id", 0)
        apply.click()
        self.wait.until(lambda b: b.find_elements(
            By.CSS_SELECTOR, f'#apply-result[data-apply-id="{before + 1}"][data-phase="answered"]'))
        self.assertIn("applied the document", self.browser.find_element(By.ID, "apply-result").text)

    def test_1_boolean_and_list_reach_the_daemon(self):
        self.browser.find_element(By.CSS_SELECTOR, '[data-command="config_get:"]').click()
        self.wait.until(lambda b: b.find_elements(
            By.CSS_SELECTOR, f'.field[data-module="{MODULE}"][data-setting="Verbose"]'))
        self.assertFalse(self.control("Verbose").is_selected())
        self.control("Verbose").click()
        Select(self.control("Level")).select_by_visible_text("high")
        # The diff against the document in force, before anything is sent.
        self.wait.until(lambda b: "2 changes to send" in b.find_element(By.ID, "diff").text)
        diff = self.browser.find_element(By.ID, "diff").text
        self.assertIn("Verbose: false → true", diff)
        self.assertIn("Level: low (0) → high (2)", diff)

        self.apply_and_wait()
        document = api("/api/config")["document"]
        self.assertEqual(setting(document, MODULE, "Verbose"), "true")
        self.assertEqual(setting(document, MODULE, "Level"), "2")
        # The form now shows the daemon's answer, with nothing left to send.
        self.wait.until(lambda b: "No changes" in b.find_element(By.ID, "diff").text)
        self.assertTrue(self.control("Verbose").is_selected())

        # The trace shows the exchange; the filter keeps one transaction; its bytes on demand.
        rows = self.trace_rows("waitForResponse")
        self.assertTrue(all(r.get_attribute("data-name") == "waitForResponse" for r in rows))
        taken = [r for r in rows if r.find_elements(By.TAG_NAME, "td")[4].text == "config_set:"]
        self.assertEqual(len(taken), 1)
        taken[0].find_element(By.TAG_NAME, "button").click()
        self.wait.until(lambda b: len(b.find_elements(By.CSS_SELECTOR, "#trace pre.hex")) == 2)
        # The reply carries the command as a String16: "c" "o" "n" ... one unit each.
        self.assertIn("63 00 6f 00 6e 00 66 00", self.browser.find_elements(
            By.CSS_SELECTOR, "#trace pre.hex")[1].text)
        received = self.trace_rows("receiveConfig")
        self.assertEqual(len(received), 1)
        self.assertIn('"Verbose","type":"boolean","value":"true"',
                      received[0].find_elements(By.TAG_NAME, "td")[4].get_attribute("title")
                      or received[0].find_elements(By.TAG_NAME, "td")[4].text)
        self.trace_rows("")

    def test_2_objection_is_shown_beside_its_field(self):
        self.browser.find_element(By.CSS_SELECTOR, '[data-command="start:"]').click()
        self.wait.until(lambda b: b.find_element(By.ID, "state-badge").text == "running")
        self.wait.until(lambda b: "sendState(1)" in b.find_element(By.ID, "answer").text)

        size = self.control("Buffer Size (KB)")
        size.clear()
        size.send_keys("0")
        self.wait.until(lambda b: "1 change to send" in b.find_element(By.ID, "diff").text)
        self.apply_and_wait()
        self.wait.until(lambda b: self.field("Buffer Size (KB)").find_element(
            By.CLASS_NAME, "objection").text == "Buffer Size (KB) must be positive")
        self.assertIn("objected", self.field("Buffer Size (KB)").get_attribute("class"))
        self.assertIn("1 module objection", self.browser.find_element(By.ID, "apply-result").text)
        # Only the field the module named.
        self.assertEqual(self.field("Verbose").find_element(By.CLASS_NAME, "objection").text, "")
        # The versions come with a fresh connect.
        self.browser.find_element(By.CSS_SELECTOR, '[data-command="fresh_connect"]').click()
        self.wait.until(lambda b: "14.0." in b.find_element(By.ID, "modules").text)
        if ARGS.screenshot:
            self.browser.execute_script("window.scrollTo(0, 0)")
            self.browser.save_screenshot(ARGS.screenshot)


def main():
    global ARGS
    parser = argparse.ArgumentParser(description="the vd-standin console in a browser")
    parser.add_argument("--build", required=True)
    parser.add_argument("--modules", required=True)
    parser.add_argument("--screenshot", help="save a PNG of the page after the scenarios")
    ARGS, rest = parser.parse_known_args()
    missing = [what for what, ok in (("python3-selenium", webdriver is not None),
                                     ("chromium", shutil.which("chromium")),
                                     ("chromium-driver", shutil.which("chromedriver"))) if not ok]
    if missing:
        print(f"SKIPPED: the browser test needs {', '.join(missing)} "
              "(apt-get install chromium chromium-driver python3-selenium)")
        return SKIP
    if not os.access(os.path.join(ARGS.build, "tools/standin/vd-standin"), os.X_OK):
        print("SKIPPED: no vd-standin in the build (libcli11-dev missing)")
        return SKIP
    result = None
    try:
        result = unittest.main(argv=[sys.argv[0], "-v"] + rest, exit=False).result
    finally:
        clean = stop_processes()
    return 0 if result.wasSuccessful() and clean else 1


if __name__ == "__main__":
    sys.exit(main())
