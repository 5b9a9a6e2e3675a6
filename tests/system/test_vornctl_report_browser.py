"""The page of vornctl report in a browser."""

import base64
import os
import shutil

import pytest

from support.report_page import HOSTILE

webdriver = pytest.importorskip("selenium.webdriver")

pytestmark = pytest.mark.xdist_group("browser")

WIDTHS = {"wide": 1280, "phone": 390}
# The elements with text whose contrast with their background is below 4.5. Texts of
# drawings are on the page's background or in boxes of almost the same colour.
LOW_CONTRAST = """
function channels(colour) {
  const parts = colour.match(/[\\d.]+/g).map(Number);
  return parts.length < 4 ? [...parts, 1] : parts;
}
function luminance(parts) {
  const [r, g, b] = parts.slice(0, 3).map((value) => {
    const part = value / 255;
    return part <= 0.03928 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4;
  });
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
}
function background(element) {
  for (; element; element = element.parentElement) {
    const parts = channels(getComputedStyle(element).backgroundColor);
    if (parts[3] === 1) return parts;
  }
  return [255, 255, 255, 1];
}
const found = [];
for (const element of document.body.querySelectorAll('*')) {
  const has_text = [...element.childNodes].some(
      (node) => node.nodeType === 3 && node.data.trim());
  if (!has_text || !element.getClientRects().length || element.disabled ||
      ['SCRIPT', 'title'].includes(element.tagName)) continue;
  const style = getComputedStyle(element);
  const text = luminance(channels(
      element.namespaceURI.endsWith('svg') ? style.fill : style.color));
  const back = luminance(background(element));
  const contrast =
      (Math.max(text, back) + 0.05) / (Math.min(text, back) + 0.05);
  if (contrast < 4.5) found.push(`${element.outerHTML} ${contrast}`);
}
return found;
"""
# Headings that skip a level, parts without a name, tables without a caption or scope.
UNSTRUCTURED = """
const found = [];
let level = 0;
for (const heading of document.querySelectorAll('h1, h2, h3, h4, h5, h6')) {
  const next = Number(heading.tagName[1]);
  if (next > level + 1) found.push(heading.outerHTML);
  level = next;
}
const named = 'section, nav, svg[role], [role=region], [role=group]';
for (const part of document.querySelectorAll(named)) {
  const label = part.getAttribute('aria-label') ||
      document.getElementById(part.getAttribute('aria-labelledby'))?.textContent;
  if (!label) found.push(part.outerHTML.slice(0, 80));
}
for (const table of document.querySelectorAll('table')) {
  if (!table.caption) found.push('caption');
  if (table.querySelector('th:not([scope])')) found.push('scope');
}
for (const tag of ['h1', 'main', 'header', 'footer', 'nav']) {
  if (document.querySelectorAll(tag).length !== 1) found.push(tag);
}
if (!document.documentElement.lang || !document.title) found.push('head');
return found;
"""


class Browser:
    """A browser without a window."""

    def __init__(self):
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for argument in ("--headless=new", "--disable-gpu", "--disable-dev-shm-usage",
                         "--disable-background-networking", "--no-first-run"):
            options.add_argument(argument)
        if os.geteuid() == 0:
            options.add_argument("--no-sandbox")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = webdriver.chrome.service.Service(shutil.which("chromedriver"))
        self.driver = webdriver.Chrome(service=service, options=options)

    def show(self, page, width=1280, scheme="light"):
        """Loads the page in a window of this width."""
        self.command("Emulation.setEmulatedMedia",
                     features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=900,
                     deviceScaleFactor=1, mobile=width < 600)
        self.driver.get(page.as_uri())

    def command(self, name, **arguments):
        return self.driver.execute_cdp_cmd(name, arguments)

    def run(self, script):
        """The value that a script in the page returns."""
        return self.driver.execute_script(script)

    def screenshot(self):
        return base64.b64decode(self.command("Page.captureScreenshot")["data"])

    def messages(self):
        """The messages on the console since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser")]


@pytest.fixture(scope="module", name="browser")
def fixture_browser():
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        pytest.skip("chromium or its driver is missing")
    browser = Browser()
    yield browser
    browser.driver.quit()


@pytest.fixture(name="page")
def fixture_page(machine):
    """The file of a report about nodes of each kind."""
    stay = machine.script("stay", "exec sleep 1000")
    machine.start({
        "configure": {"environment": {"TOKEN": "hunter-two"}},
        "vornnode": {
            "camera": {"path": stay, "required": ["lidar"]},
            "lidar": {"path": stay, "required": ["loop"], "sleep": 1},
            "loop": {"path": stay, "required": ["lidar"], "autostart": False},
            "flaky": {"path": machine.script("flaky", "exit 3")},
            "gone": {"path": "/tmp/bin/gone"},
            HOSTILE: {"path": stay},
        }})
    machine.wait_for_log("'flaky' exited with status: 3.")
    machine.vornctl("restart", "camera")
    done = machine.vornctl("report", "-o", "/tmp/report.html")
    assert done.returncode == 0
    return machine.tmp / "report.html"


def test_the_page_is_usable_in_each_width_and_scheme(page, browser):
    pictures = set()
    for scheme in "light", "dark":
        for name, width in WIDTHS.items():
            browser.show(page, width, scheme)
            case = f"{scheme} {name}"
            assert browser.messages() == [], case
            assert browser.run(LOW_CONTRAST) == [], case
            assert browser.run(UNSTRUCTURED) == [], case
            assert browser.run(
                "return document.documentElement.scrollWidth") <= width, case
            pictures.add(browser.screenshot())
    assert len(pictures) == 4
    assert min(map(len, pictures)) > 10_000


def test_the_timeline_can_be_zoomed_and_moved(page, browser):
    browser.show(page)
    span = browser.run("return Number(document.getElementById('timeline-plot')"
                       ".dataset.span)")
    times = """
      const [from, to] = document.getElementById('timeline-range').textContent
          .split(' to ').map((text) => Date.parse(text.replace(' ', 'T')));
      return [from, to];"""
    press = "document.querySelector(`#timeline-controls [value=${arguments[0]}]`).click()"
    whole = browser.run(times)
    browser.driver.execute_script(press, "in")
    zoomed = browser.run(times)
    assert whole[0] < zoomed[0] < zoomed[1] < whole[1]
    assert abs(zoomed[1] - zoomed[0] - span / 2) <= 1000
    browser.driver.execute_script(press, "back")
    assert browser.run(times)[0] < zoomed[0]
    browser.driver.execute_script(press, "all")
    assert browser.run(times) == whole
    assert browser.messages() == []


def test_all_parts_are_readable_without_scripts(page, browser):
    browser.command("Emulation.setScriptExecutionDisabled", value=True)
    try:
        browser.show(page)
        text = browser.driver.find_element("css selector", "body").text
    finally:
        browser.command("Emulation.setScriptExecutionDisabled", value=False)
    for part in ("restarting in", "exited with status 3", "camera requires lidar",
                 "TOKEN: [hidden]", "Kernel"):
        assert part in text
    assert "Zoom in" not in text
