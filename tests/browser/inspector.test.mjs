// The inspector's page as a person uses it: a device plays, the page shows it, and answers are made to fail with a
// click.
import assert from "node:assert/strict";
import path from "node:path";
import { after, before, test } from "node:test";
import { layoutTroubles } from "./layout.mjs";
import { kDesktop, kPhone, screenshots, Stage } from "./stage.mjs";

const stage = new Stage();
let device;
let page;
let troubles;

const picture = (name) => page.screenshot({ path: path.join(screenshots, `${name}.png`), animations: "disabled" });
const rowsOf = (text) => page.locator("#rows .row", { hasText: text });
const total = (name) => page.locator(`[data-total=${name}]`);
const focusedId = () => page.evaluate(() => document.activeElement.id || document.activeElement.className);

// Waits until a locator's text is this.
async function untilText(locator, text) {
  await locator.filter({ hasText: new RegExp(`^${text}$`) }).waitFor();
}

async function lay(name) {
  for (const [width, viewport] of Object.entries({ desktop: kDesktop, phone: kPhone })) {
    await page.setViewportSize(viewport);
    // The timeline is redrawn for the new width.
    if (["devices", "ledger"].includes(name)) await page.waitForFunction(() => {
      const chart = document.querySelector(".chart");
      return Math.abs(Math.max(320, chart.clientWidth - 32) - chart.querySelector("svg").viewBox.baseVal.width) < 1;
    });
    await page.evaluate(() => scrollTo(0, 0));
    await picture(`${name}-${width}`);
    assert.deepEqual(await layoutTroubles(page), [], `${name} at ${width} width`);
  }
  await page.setViewportSize(kDesktop);
}

before(async () => {
  await stage.startService();
  ({ page, troubles } = await stage.openBrowser());
  await page.goto(stage.url);
  await page.locator("#live[data-state=live]").waitFor();
  device = stage.startDevice();
});

after(() => stage.end());

test("an empty service says that nothing has arrived", async () => {
  await untilText(page.locator("#found"), "Nothing has arrived yet");
  assert.equal(await page.locator("#rows .row").count(), 0);
});

test("a device plays and the page shows its requests without a reload", async () => {
  await page.evaluate(() => { window.neverReloaded = true; });
  const verbs = [
    "active", "settle", "event shop view", "event shop view sku-7", "event shop purchase sku-7",
    'open-url "demo://offer/7?ck=7&mrvk_eng=1"', "age 27", "background", "settle",
  ];
  for (const verb of verbs) assert.equal((await device.do(verb)).ok, true, verb);
  await rowsOf("shop/purchase").first().waitFor();
  await rowsOf("reengagement-conversion").first().waitFor();
  await rowsOf("conversion").first().waitFor();
  assert.equal(await page.evaluate(() => window.neverReloaded), true);
  const ids = (await page.locator("#rows .id").allTextContents()).map(Number);
  assert.deepEqual(ids, [...ids].sort((a, b) => b - a), "newest first");
});

test("a request opens into payload, answer, headers and body", async () => {
  await rowsOf("shop/purchase").first().click();
  const detail = page.locator("#detail");
  await detail.getByText("POST /v1/tracking").waitFor();
  assert.match(await detail.locator("pre[aria-label='Decoded payload']").textContent(), /"activity": "purchase"/);
  assert.match(await detail.locator("pre[aria-label=Answer]").textContent(), /"Result": true/);
  await detail.getByText("Headers", { exact: true }).click();
  assert.match(await detail.locator("table").textContent(), /application\/x-www-form-urlencoded/);
  await detail.getByText("Raw body", { exact: true }).click();
  assert.match(await detail.locator("pre[aria-label='Raw body']").textContent(), /^k=demo-app&j=/);
  assert.equal(await detail.locator(".rules").count(), 0, "our device follows the wire format");
  await page.evaluate(() => {
    for (const each of document.querySelectorAll("#detail details:not(:first-of-type)")) each.open = false;
  });
  await lay("request");
});

test("of two requests opened one after the other the later one stays, whichever answer comes first", async () => {
  const ids = page.locator("#rows .row .id");
  const [first, second] = [await ids.nth(0).textContent(), await ids.nth(1).textContent()];
  let letGo;
  const held = new Promise((resolve) => { letGo = resolve; });
  const isFirst = (url) => url.pathname === "/inspect/request" && url.searchParams.get("id") === first;
  await page.route(isFirst, async (route) => {
    await held;
    await route.continue();
  });
  const answered = page.waitForResponse((response) => isFirst(new URL(response.url())));
  await ids.nth(0).click();
  await ids.nth(1).click();
  const number = page.locator("#detail .tag", { hasText: "number" });
  await untilText(number, `number ${second}`);
  letGo();
  await (await answered).finished();
  await page.evaluate(async () => (await fetch("/inspect/forms")).json());
  assert.equal(await number.textContent(), `number ${second}`);
  await page.unroute(isFirst);
});

test("what is garbage is shown with what is wrong, and as text", async () => {
  const markup = "<img src=x onerror=alert(1)>";
  const answer = await page.context().request.post(`${stage.url}v1/tracking`, {
    data: `k=${markup}`,
    headers: { "Content-Type": "application/x-www-form-urlencoded" },
    ignoreHTTPSErrors: true,
  });
  assert.equal(answer.status(), 403);
  await rowsOf("403").first().click();
  await page.locator("#detail .rules.refused", { hasText: "the app key is not this service's" }).waitFor();
  assert.equal(await page.locator("#detail pre[aria-label='Raw body']").textContent(), `k=${markup}`);
  assert.equal(await page.locator("#detail img").count(), 0);
  await lay("refused");
});

test("a misbehaviour is switched on by a click and the next answer misbehaves", async () => {
  const delivered = await total("delivered").textContent();
  const number = async (name) => Number(await total(name).textContent());
  assert.equal(await number("recorded"), (await number("delivered")) + (await number("duplicate")));
  await page.getByRole("tab", { name: "Misbehaviour" }).click();
  await page.getByRole("switch", { name: "Bad status" }).click();
  await page.locator("#waiting li", { hasText: "tracking bad status 500" }).waitFor();
  await lay("behaviour");
  assert.equal((await device.do("active")).ok, true);
  assert.equal((await device.do("event shop refund sku-7")).ok, true);
  assert.equal((await device.do("push")).ok, true);
  // Used up by the device's next batch, without a reload.
  await page.locator("[role=switch][data-kind=status][aria-checked=false]").waitFor();
  await page.getByRole("tab", { name: "Requests" }).click();
  await rowsOf("spoiled").first().waitFor();
  assert.match(await rowsOf("spoiled").first().textContent(), /500/);
  assert.equal((await device.do("settle")).ok, true);
  // The device has noticed: what the answer did not accept is still stored, and arrives with the next batch.
  assert.equal((await device.do("push")).ok, true);
  assert.equal((await device.do("settle")).ok, true);
  await page.waitForFunction((before) =>
    document.querySelector("[data-total=delivered]").textContent !== before, delivered);
  await rowsOf("shop/refund").first().waitFor();
  assert.ok((await rowsOf("shop/refund").count()) >= 2, "the batch was sent again");
});

test("a search finds payloads and narrows the list", async () => {
  await page.locator("#search").fill("refund sku-7");
  await page.locator("#found", { hasText: "found" }).waitFor();
  assert.ok((await page.locator("#rows .row").count()) >= 2);
  await page.locator("#search").fill("no such text anywhere");
  await page.locator("#found", { hasText: "0 requests found" }).waitFor();
  await page.locator("#search").fill("");
  await page.locator("#refused").check();
  await page.locator("#found", { hasText: "1 request found" }).waitFor();
  await page.locator("#refused").uncheck();
  await page.locator("#found", { hasText: "shown" }).waitFor();
  await lay("requests");
});

test("the id of an event shows the requests that it came with and what each was answered", async () => {
  const answer = await page.context().request.get(`${stage.url}inspect/events`, { ignoreHTTPSErrors: true });
  const { events } = await answer.json();
  const { event_id: id } = events.find((each) => each.activity === "refund");
  await page.locator("#search").fill(id.toUpperCase());
  const detail = page.locator("#detail");
  await detail.getByText(`Event ${id}`).waitFor();
  await page.locator("#found", { hasText: "2 requests found" }).waitFor();
  assert.match(await detail.locator(".fate").textContent(), /^Delivered with request [0-9]+\.$/);
  const arrivals = detail.locator(".moments tr");
  assert.deepEqual(await arrivals.locator("td:nth-child(2)").allTextContents(), ["not counted", "first"]);
  assert.match(await arrivals.first().textContent(), /500.*misbehaved on request: status/);
  assert.match(await arrivals.last().textContent(), /200/);
  assert.match(await detail.locator("pre").textContent(), /"activity": "refund"/);
  await lay("event");
  await arrivals.last().getByRole("button").click();
  await detail.locator(".facts").waitFor();
  await page.locator("#search").fill("");
  await page.locator("#found", { hasText: "shown" }).waitFor();
});

test("an event that has not arrived is said not to have", async () => {
  await page.locator("#search").fill("018f3406-9e00-7abc-8def-0123456789ab");
  await page.locator("#detail", { hasText: "has not arrived" }).waitFor();
  await page.locator("#search").fill("");
  await page.locator("#found", { hasText: "shown" }).waitFor();
});

test("an install's timeline shows its sessions, activities and what else happened", async () => {
  const verbs = [
    "wait 1", "background", "settle", "clock 7200", "active", "event level done 3", "event shop view sku-9", "wait 1",
    "background", "settle", "clock 90000", "active", "settle",
  ];
  for (const verb of verbs) assert.equal((await device.do(verb)).ok, true, verb);
  await page.getByRole("tab", { name: "Devices" }).click();
  await page.locator("#installs .row").first().click();
  const chart = page.locator("#device .chart svg").first();
  await chart.locator(".session").first().waitFor();
  await chart.locator(".activity").first().waitFor();
  assert.ok((await chart.locator(".mark").count()) >= 2, "attribution and deep link");
  await page.locator("#device .moments", { hasText: "demo://offer/7" }).waitFor();
  await lay("devices");
  await page.getByRole("button", { name: "Draw to scale" }).click();
  await page.getByRole("button", { name: "Shorten silences" }).waitFor();
  await page.locator("#device .moments button").first().click();
  await page.locator("#detail .facts").waitFor();
  assert.equal(await page.getByRole("tab", { name: "Requests" }).getAttribute("aria-selected"), "true");
  await page.getByRole("tab", { name: "Devices" }).click();
  await page.locator("#device .moments button", { hasText: "event" }).first().click();
  await page.locator("#detail h2", { hasText: "Event " }).waitFor();
});

test("a device's ledger is shown as it changes, next to what arrived", async () => {
  const ledger = page.locator("#device .account");
  const activities = ledger.locator("tr", { hasText: "activities" });
  const number = async (title) => Number(await activities.locator(`td[data-label="${title}"]`).textContent());
  await page.getByRole("tab", { name: "Devices" }).click();
  await ledger.getByText("morvik-device run --report-ledger").waitFor();
  await device.end();
  device = stage.startDevice("device", "--report-ledger");
  // The ledger is sent after each verb, and the page follows without a reload.
  assert.equal((await device.do("event shop view sku-1")).ok, true);
  await ledger.locator(".tag.good", { hasText: "balances" }).waitFor();
  const before = await number("Delivered");
  assert.ok(before > 0 && (await number("Stored")) > 0);
  assert.equal(await number("Arrived here"), before);
  for (const verb of ["push", "settle"]) assert.equal((await device.do(verb)).ok, true, verb);
  await page.waitForFunction((least) =>
    Number(document.querySelector('.ledger td[data-label="Delivered"]').textContent) > least, before);
  const known = (await number("Delivered")) + (await number("Stored")) + (await number("Under way"));
  assert.equal(await number("Recorded"), known + (await number("Given up")));
  await lay("ledger");
  await page.emulateMedia({ colorScheme: "dark" });
  await picture("ledger-dark-desktop");
  await page.emulateMedia({ colorScheme: "light" });
});

test("a ledger that does not balance says what is missing", async () => {
  const account = {
    kind: "activities", recorded: 9, delivered: 5, stored: 1, under_way: 0, given_up: 1, found_uncounted: 0,
  };
  const wrong = {
    install: "a device that counts wrongly",
    accounts: [account],
    given_up: [{ kind: "activities", count: 1, reason: "unexplained", by_rule: false }],
  };
  const answer = await page.context().request.post(`${stage.url}inspect/ledger`, {
    data: wrong,
    ignoreHTTPSErrors: true,
  });
  assert.equal(answer.status(), 200);
  const row = page.locator("#installs .row", { hasText: wrong.install });
  await row.locator(".tag.bad").waitFor();
  await row.click();
  const ledger = page.locator("#device .account");
  await ledger.locator(".tag.bad", { hasText: "does not balance" }).waitFor();
  await ledger.getByText("Of activities, 9 were recorded and 7 are accounted for.").waitFor();
  await ledger.getByText("Fewer activities arrived here than the device knows as delivered").waitFor();
  await ledger.locator(".reasons li", { hasText: "activities given up: unexplained" }).locator(".tag.bad").waitFor();
  await lay("ledger-unbalanced");
  // The most recently active one comes first.
  assert.match(await page.locator("#installs .row").first().textContent(), /counts wrongly/);
  for (const verb of ["event shop view sku-2", "push", "settle"]) assert.equal((await device.do(verb)).ok, true, verb);
  await page.locator("#installs .row").first().filter({ hasText: "requests" }).waitFor();
  await page.getByRole("tab", { name: "Requests" }).click();
});

test("a structured parameter is opened, and a text stays a text", async () => {
  const parameter = '{"price":9.99,"serial":12345678901234567890,"item":{"sku":"42"},"tags":["new"]}';
  for (const verb of [`event shop order ${parameter}`, "event shop broken {price", "push", "settle"])
    assert.equal((await device.do(verb)).ok, true, verb);
  await rowsOf("shop/order").first().click();
  const payload = page.locator("#detail pre[aria-label='Decoded payload']", { hasText: "order" });
  await payload.locator(".j-note", { hasText: "text of" }).scrollIntoViewIfNeeded();
  const shown = await payload.textContent();
  const lines = [
    /"param": text of \{/, /"price": 9\.99,/, /"serial": 12345678901234567890,/, /"item": \{/, /"sku": "42"\n/,
  ];
  assert.match(shown, new RegExp(lines.map((each) => each.source).join("\\n +")));
  assert.match(shown, /"param": "\{price"/);
  await lay("parameter");
});

test("dark and light are there, as the system has them and by hand", async () => {
  const ground = () => page.evaluate(() => getComputedStyle(document.body).backgroundColor);
  const light = await ground();
  await page.emulateMedia({ colorScheme: "dark" });
  const dark = await ground();
  assert.notEqual(dark, light);
  await page.locator("#theme").click();
  assert.equal(await ground(), light, "light by hand");
  await page.locator("#theme").click();
  assert.equal(await ground(), dark, "dark by hand");
  await page.emulateMedia({ colorScheme: "light" });
  assert.equal(await ground(), dark);
  await picture("dark-desktop");
  await page.locator("#theme").click();
  assert.equal(await ground(), light);
});

test("everything can be done with the keyboard alone, and the focus is always seen", async () => {
  const press = async (key) => {
    await page.keyboard.press(key);
    const isSeen = await page.evaluate(() => {
      const focused = document.activeElement;
      if (focused === document.body || focused.matches("main, article")) return true;
      return focused.matches(":focus-visible") && getComputedStyle(focused).outlineStyle !== "none";
    });
    assert.ok(isSeen, `the focus on ${await focusedId()} after ${key}`);
  };
  const tabTo = async (id, key = "Tab") => {
    for (let i = 0; i < 60 && (await focusedId()) !== id; ++i) await press(key);
    assert.equal(await focusedId(), id);
  };
  await page.reload();
  await page.locator("#rows .row").first().waitFor();
  await press("Tab");
  assert.equal(await focusedId(), "skip", "the first stop skips the header");
  await tabTo("rows");
  await press("ArrowDown");
  await press("ArrowDown");
  await press("Home");
  await press("Enter");
  const newest = await page.locator("#rows .row").first().getAttribute("data-key");
  await page.locator("#detail .head", { hasText: `number ${newest}` }).waitFor();
  await press("Tab");
  await press("Escape");
  assert.equal(await focusedId(), "rows");
  await tabTo("tab-requests", "Shift+Tab");
  await press("ArrowRight");
  await tabTo("installs");
  await press("Enter");
  await page.locator("#device .chart svg").first().waitFor();
  await tabTo("tab-devices", "Shift+Tab");
  await press("ArrowRight");
  await tabTo("behaviour-endpoint");
  for (let i = 0; i < 3; ++i) await press("Tab");
  await press("Space");
  await page.locator("#waiting li").first().waitFor();
  await tabTo("clear");
  await press("Enter");
  await untilText(page.locator("#waiting-found"), "Every answer arrives as it should");
});

test("the browser had nothing to complain about", () => {
  assert.deepEqual(troubles, []);
});
