"""The lab's page in a real browser, for its tests. Screenshots are saved in $DASHBOARD_PICTURES, or in the test's
folder.
"""
import os
import pathlib
import shutil
import time

import pytest

CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
try:
    from selenium import webdriver
    from selenium.common.exceptions import StaleElementReferenceException
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
except ImportError:
    webdriver = ActionChains = By = Keys = Select = StaleElementReferenceException = None

__all__ = ["ActionChains", "Keys", "Select", "NARROW", "WIDE", "in_a_browser", "Page", "browser_of_the_run", "page"]

in_a_browser = pytest.mark.skipif(
    not (CHROMIUM and DRIVER and webdriver), reason="no browser (apt install chromium chromium-driver python3-selenium)"
)
WIDE, NARROW = (1280, 1500), (390, 1500)


@pytest.fixture(scope="session")
def browser_of_the_run(tmp_path_factory):
    """One browser for all tests of the run."""
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    home = tmp_path_factory.mktemp("browser")
    for argument in (
        "headless=new",
        "no-sandbox",
        "disable-gpu",
        "disable-dev-shm-usage",
        "force-device-scale-factor=1",
        f"user-data-dir={home}",
    ):
        options.add_argument(f"--{argument}")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(DRIVER), options=options)
    yield driver
    driver.quit()


class Page:
    """The page in the browser."""

    def __init__(self, driver, lab, pictures):
        self.driver, self.lab, self._pictures = driver, lab, pictures

    def open(self, size=WIDE):
        self.driver.set_window_size(*size)
        # The browser would not reload the page for another fragment of the same address.
        self.driver.get("about:blank")
        self.driver.get(self.lab.info["control"]["dashboard"])
        self.wait(lambda: self.text("#link") == "live")
        return self

    def wait(self, condition, seconds=20):
        end = time.monotonic() + seconds
        while not condition():
            assert time.monotonic() < end, self.texts(".said, .problem, .link")
            time.sleep(0.05)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.driver.execute_script("return document.querySelector(arguments[0])?.textContent ?? null", selector)

    def texts(self, selector):
        """Texts as they are shown, all of one moment: the page may draw its lists again at any time."""
        return self.driver.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map(item => item.innerText)", selector
        )

    def press(self, selector, which=0):
        """Clicks an element.

        @param which index or text of the element among those of the selector
        """
        while True:
            try:
                at = which if isinstance(which, int) else self.texts(selector).index(which)
                item = self.all(selector)[at]
                self.driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", item)
                return item.click()
            except StaleElementReferenceException:  # drawn again in between: not clicked
                pass

    def field(self, section, label):
        at = self.texts(f"#{section} label").index(label)
        return self.one(f"#{self.all(f'#{section} label')[at].get_attribute('for')}")

    def click(self, section, text):
        self.press(f"#{section} button", text)

    def call(self, method):
        Select(self.field("call", "Method")).select_by_value(method)
        self.click("call", "Call")
        self.wait(lambda: self.all("#call .answer h3"))
        return self.text("#call .answer p"), self.text("#call .daemon")

    def rows(self):
        """Texts of the visible rows."""
        return self.driver.execute_script("return [...document.querySelectorAll('.row')].map(row => row.textContent)")

    def selected(self):
        """Indexes of the selected rows among the visible ones."""
        return self.driver.execute_script(
            "return [...document.querySelectorAll('.row')].flatMap("
            "(row, at) => row.getAttribute('aria-selected') === 'true' ? [at] : [])"
        )

    def picture(self, name):
        self.driver.save_screenshot(str(self._pictures / f"{name}.png"))

    def complaints(self):
        return [line["message"] for line in self.driver.get_log("browser")]

    def accepts(self, *texts):
        """Checks that each complaint of the browser, if there is any, has one of the texts."""
        complaints = self.complaints()
        assert [line for line in complaints if not any(text in line for text in texts)] == []
        return complaints

    def expects(self, *texts):
        """Checks that the browser has complained, and that each complaint has one of the texts."""
        assert self.accepts(*texts)


@pytest.fixture
def page(request, lab, tmp_path):
    driver = request.getfixturevalue("browser_of_the_run")
    pictures = pathlib.Path(os.environ.get("DASHBOARD_PICTURES", tmp_path))
    pictures.mkdir(parents=True, exist_ok=True)
    opened = Page(driver, lab, pictures)
    yield opened
    assert opened.complaints() == []
    # Clears the page's storage, so that the next test starts without state.
    if driver.current_url.startswith("http"):
        driver.execute_script("sessionStorage.clear()")
    driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
