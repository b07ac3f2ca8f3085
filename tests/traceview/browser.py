"""Headless Chromium for the trace viewer's tests and benchmark.

Debian's chromium and chromium-driver, driven by Debian's python3-selenium;
never a downloaded browser. The driver listens on a free loopback port, the
browser gets a fresh profile in a temporary folder, and quit() stops both and
removes the folder. The flags keep Chromium off the network: on this closed
network its background connections are refused, and the page itself loads
nothing.
"""
import os
import shutil
import socket
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--window-size=1600,1000", "--force-device-scale-factor=1",
         # A file:// page may read the files the user gives it; nothing else.
         "--allow-file-access-from-files"]


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Browser:
    def __init__(self, download_dir=None):
        self.profile = tempfile.mkdtemp(prefix="qv-chromium-")
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for flag in FLAGS:
            options.add_argument(flag)
        options.add_argument("--user-data-dir=" + self.profile)
        if download_dir:
            options.add_experimental_option("prefs", {"download.default_directory": download_dir,
                                                      "download.prompt_for_download": False})
        self.service = Service(executable_path=CHROMEDRIVER, port=free_port(), log_output=os.devnull) \
            if "log_output" in Service.__init__.__code__.co_varnames else \
            Service(executable_path=CHROMEDRIVER, port=free_port(), log_path=os.devnull)
        try:
            self.driver = webdriver.Chrome(service=self.service, options=options)
        except Exception:
            self.service.stop()
            shutil.rmtree(self.profile, ignore_errors=True)
            raise
        self.driver.set_script_timeout(120)
        if download_dir:
            self.driver.execute_cdp_cmd("Page.setDownloadBehavior", {"behavior": "allow", "downloadPath": download_dir})

    def quit(self):
        try:
            self.driver.quit()
        finally:
            self.service.stop()
            shutil.rmtree(self.profile, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.quit()
