// The ledger that a device reported, next to what arrived from it here.
import { el } from "./dom.js";
import { count, moment } from "./format.js";

const kColumns = [
  ["recorded", "Recorded"],
  ["delivered", "Delivered"],
  ["stored", "Stored"],
  ["under_way", "Under way"],
  ["given_up", "Given up"],
  ["arrived", "Arrived here"],
];

const isUsed = (account) => kColumns.some(([member]) => account[member] > 0) || account.found_uncounted > 0;
const isShort = (account) => account.arrived !== null && account.arrived < account.delivered;

function cell(account, [member, title]) {
  const value = account[member];
  const isWrong = (member === "recorded" && !account.balances) || (member === "arrived" && isShort(account));
  const shown = value === null ? "–" : count(value);
  return el("td", { role: "cell", "data-label": title, class: isWrong && "wrong" }, shown);
}

function table(accounts) {
  const head = ["Kind", ...kColumns.map(([, title]) => title)];
  return el("table", { class: "ledger", role: "table", "aria-label": "What became of all that was recorded" },
    el("thead", { role: "rowgroup" }, el("tr", { role: "row" },
      head.map((title) => el("th", { role: "columnheader", scope: "col" }, title)))),
    el("tbody", { role: "rowgroup" }, accounts.map((account) => el("tr", { role: "row" },
      el("th", { role: "rowheader", scope: "row" }, account.kind), kColumns.map((column) => cell(account, column))))));
}

// What is wrong, and what a difference from this service's counts means.
function remarks(accounts) {
  const lines = [];
  for (const account of accounts) {
    const known = account.delivered + account.stored + account.under_way + account.given_up;
    if (!account.balances)
      lines.push(`Of ${account.kind}, ${count(account.recorded)} were recorded and ${count(known)} are accounted for.`);
    if (account.found_uncounted > 0)
      lines.push(`Of ${account.kind}, ${count(account.found_uncounted)} were found stored that had not been counted.`);
    if (isShort(account)) {
      lines.push(`Fewer ${account.kind} arrived here than the device knows as delivered: it delivered to another ` +
        "service or store before, or something is wrong.");
    }
  }
  return lines.map((line) => el("p", { class: "note wrong" }, line));
}

function reasons(givenUp) {
  if (givenUp.length === 0) return null;
  return el("ul", { class: "reasons", "aria-label": "Given up, by reason" }, givenUp.map((each) => el("li", {},
    el("span", { class: "count" }, count(each.count)),
    el("span", { class: "what" }, `${each.kind} given up: ${each.reason}`),
    !each.by_rule && el("span", { class: "tag bad" }, "against the rules"))));
}

function verdict(ledger) {
  if (!ledger.balances) return el("span", { class: "tag bad" }, "does not balance");
  return ledger.sound
    ? el("span", { class: "tag good" }, "balances")
    : el("span", { class: "tag bad" }, "balances, but not by the rules");
}

function untold() {
  return el("p", { class: "note" }, "This device has not reported its ledger. Start it with ",
    el("code", {}, "morvik-device run --report-ledger"), " to see here what it recorded and what became of it.");
}

function told(ledger) {
  const used = ledger.accounts.filter(isUsed);
  const unused = ledger.accounts.filter((account) => !isUsed(account)).map((account) => account.kind);
  return [
    el("p", { class: "note" }, verdict(ledger),
      ` Recorded = delivered + stored + under way + given up, reported ${moment(ledger.time)}.`,
      " An event counts as arrived once; anything else each time."),
    used.length > 0 && table(used), ...remarks(ledger.accounts), reasons(ledger.given_up),
    unused.length > 0 && el("p", { class: "note" }, `Nothing recorded: ${unused.join(", ")}.`),
  ];
}

// `ledger` is null if the device reported none.
export function ledgerPart(ledger) {
  return el("section", { class: "account", "aria-label": "Ledger" }, el("h3", {}, "Ledger"),
    ledger === null ? untold() : told(ledger));
}
