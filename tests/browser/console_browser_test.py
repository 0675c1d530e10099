#!/usr/bin/env python3
# The vd-standin browser console in headless Chromium, run by ConsoleE2ETest.PageInABrowser
# (tests/e2e/standin_e2e_test.cpp) with the address of a console that serves a fresh daemon
# with the settings test module:
#
#     console_browser_test.py --url http://127.0.0.1:PORT/
#
# The scenarios go through the page as a person would: change a boolean and a list in the form
# and apply, then apply a value the module objects to and one the daemon corrects. Every wait
# polls with a bound. Exit status 77 (skipped) when Chromium, its driver or Selenium is missing.
# VIGILD_CONSOLE_SCREENSHOT=PNG saves the page at the end (docs/console.png).

import argparse
import json
import os
import shutil
import sys
import tempfile
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
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import Select, WebDriverWait
except ImportError:
    webdriver = None

URL = None


def api(path):
    with urllib.request.urlopen(URL + path.lstrip("/"), timeout=10) as reply:
        return json.load(reply)


# The value of one of the module's settings in the document the daemon holds now.
def setting(name):
    settings = api("/api/config")["document"][MODULE]["settings"]
    return next(entry["value"] for entry in settings if entry["name"] == name)


class ConsolePage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        cls.profile = tempfile.mkdtemp(prefix="vdb-chromium.")
        for flag in CHROMIUM_FLAGS + [f"--user-data-dir={cls.profile}"]:
            options.add_argument(flag)
        cls.browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")),
                                       options=options)
        cls.browser.get(URL)
        cls.wait = WebDriverWait(cls.browser, TIMEOUT, poll_frequency=0.05)
        cls.wait.until(lambda b: b.find_element(By.ID, "link-badge").text == "live")

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        shutil.rmtree(cls.profile, ignore_errors=True)

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
        self.assertEqual(setting("Verbose"), "true")
        self.assertEqual(setting("Level"), "2")
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

    def test_2_objection_and_value_not_kept_beside_their_fields(self):
        self.browser.find_element(By.CSS_SELECTOR, '[data-command="start:"]').click()
        self.wait.until(lambda b: b.find_element(By.ID, "state-badge").text == "running")
        self.wait.until(lambda b: "sendState(1)" in b.find_element(By.ID, "answer").text)

        for name, value in (("Buffer Size (KB)", "0"), ("Log Path", "/elsewhere/")):
            self.control(name).clear()
            self.control(name).send_keys(value)
        self.wait.until(lambda b: "2 changes to send" in b.find_element(By.ID, "diff").text)
        self.apply_and_wait()
        self.wait.until(lambda b: self.field("Buffer Size (KB)").find_element(
            By.CLASS_NAME, "objection").text == "Buffer Size (KB) must be positive")
        self.assertIn("objected", self.field("Buffer Size (KB)").get_attribute("class"))
        result = self.browser.find_element(By.ID, "apply-result").text
        self.assertIn("1 module objection", result)
        self.assertIn("1 value not kept", result)
        # The objected value stays applied; the path is the one the daemon holds instead.
        self.assertEqual(setting("Buffer Size (KB)"), "0")
        self.assertEqual(self.field("Log Path").find_element(By.CLASS_NAME, "notkept").text,
                         "not kept: sent /elsewhere/, the daemon has "
                         + setting("Log Path"))
        # Only the fields concerned.
        self.assertEqual(self.field("Verbose").find_element(By.CLASS_NAME, "objection").text, "")
        self.assertEqual(self.field("Buffer Size (KB)").find_element(By.CLASS_NAME, "notkept").text,
                         "")
        # The versions come with a fresh connect.
        self.browser.find_element(By.CSS_SELECTOR, '[data-command="fresh_connect"]').click()
        self.wait.until(lambda b: "14.0." in b.find_element(By.ID, "modules").text)
        if os.environ.get("VIGILD_CONSOLE_SCREENSHOT"):
            self.browser.execute_script("window.scrollTo(0, 0)")
            self.browser.save_screenshot(os.environ["VIGILD_CONSOLE_SCREENSHOT"])


def main():
    global URL
    parser = argparse.ArgumentParser(description="the vd-standin console in a browser")
    parser.add_argument("--url", required=True, help="the console, e.g. http://127.0.0.1:8080/")
    args, rest = parser.parse_known_args()
    URL = args.url
    missing = [what for what, ok in (("python3-selenium", webdriver is not None),
                                     ("chromium", shutil.which("chromium")),
                                     ("chromium-driver", shutil.which("chromedriver"))) if not ok]
    if missing:
        print(f"SKIPPED: the browser test needs {', '.join(missing)} "
              "(apt-get install chromium chromium-driver python3-selenium)")
        return SKIP
    result = unittest.main(argv=[sys.argv[0], "-v"] + rest, exit=False).result
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
