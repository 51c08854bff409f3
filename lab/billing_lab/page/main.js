// main.js - puts the page together and keeps it up to date.
import { ask, follow, send } from "./api.js";
import * as journal from "./journal.js";
import * as plot from "./plot.js";
import * as call from "./call.js";
import { byId, make } from "./dom.js";
import { startAnswers } from "./answers.js";
import { startDevice } from "./controls.js";
import { startFaults } from "./faults.js";
import { startChecks } from "./checks.js";
import { startRuns } from "./runs.js";
import { startCatalogue, startInvoices } from "./shop.js";

const link = byId("link");

function problem(text) {
  byId("problem").textContent = text;
  byId("problem").hidden = !text;
}

function state(name, text) {
  link.className = `link ${name}`;
  link.textContent = text;
}

async function begin() {
  const [meta, status, catalogue, entries] = await Promise.all([ask("meta"), ask("status"), ask("catalogue"), ask("journal")]);
  const hint = `Nothing was asked yet. Make a call on this page, or from an app with DBUS_SYSTEM_BUS_ADDRESS=${status.bus}`;
  journal.start(meta.endpoints, hint);
  plot.start();
  call.start(meta.methods, meta.endpoint_of);
  const showDevice = startDevice(meta, catalogue.users, status.device);
  const faults = startFaults(meta);
  const invoices = startInvoices();
  const showBanner = startBanner();
  const showChecks = startChecks(meta);
  const showAnswers = startAnswers(meta);
  startRuns();
  let shown = "";

  async function show(now) {
    const known = `${now.catalogue.file} ${now.catalogue.number}`;
    if (known !== shown) {
      shown = known;
      const fresh = await ask("catalogue");
      showCatalogue(fresh);
      invoices.showCatalogue(fresh);
      showDevice(now.device, fresh.users, false, now.names);
    } else {
      showDevice(now.device, undefined, false, now.names);
    }
    faults.show(now);
    showBanner(now);
    showChecks(now);
    showAnswers(now);
    // The page may have newer entries than this state.
    journal.forgetBefore(now.journal.first || now.journal.newest + 1);
    if (journal.latest() === 0) plot.clear();
    await invoices.refresh();
  }

  const showCatalogue = startCatalogue(async () => show(await ask("status")));
  await show(status);
  for (const entry of entries) {
    journal.add(entry);
    plot.add(entry);
  }
  listen(show);
}

function startBanner() {
  byId("usual").addEventListener("click", () => send("usual", {}).catch((error) => problem(error.message)));
  return (now) => {
    byId("banner").hidden = now.unusual.length === 0;
    byId("unusual").replaceChildren(...now.unusual.map((text) => make("li", {}, text)));
  };
}

/** @param show puts a status on the page */
function listen(show) {
  const told = (now) => show(now).catch((error) => problem(error.message));
  const source = follow(journal.latest(), {
    entry(entry) {
      journal.add(entry);
      plot.add(entry);
    },
    state: told,
    up() {
      state("up", "live");
      problem("");
      // No event has told of changes while the connection was lost.
      ask("status").then(told).catch((error) => problem(error.message));
    },
    down(ended) {
      state("down", ended ? "not connected" : "reconnecting ...");
      problem("The lab does not answer. If it was stopped, start it again with billing-lab up: this page goes on then.");
      if (!ended) return;
      source.close();
      setTimeout(() => listen(show), 2000);
    },
  });
}

begin().catch((error) => {
  state("down", "not connected");
  problem(error.message);
});
