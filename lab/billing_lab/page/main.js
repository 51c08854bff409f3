// main.js - puts the page together and keeps it up to date.
import { ask, follow } from "./api.js";
import * as journal from "./journal.js";
import * as plot from "./plot.js";
import * as call from "./call.js";
import { byId } from "./dom.js";
import { startDevice, startFaults } from "./controls.js";
import { startCatalogue, startInvoices } from "./shop.js";

const REFRESH_MS = 300;
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
  call.start(meta.methods);
  const showDevice = startDevice(meta, catalogue.users, status.device);
  const faults = startFaults(meta);
  faults.show(status);
  const invoices = startInvoices();
  invoices.showCatalogue(catalogue);

  const showCatalogue = startCatalogue(async () => {
    const [fresh, now] = await Promise.all([ask("catalogue"), ask("status")]);
    showCatalogue(fresh);
    invoices.showCatalogue(fresh);
    showDevice(now.device, fresh.users);
    faults.show(now);
    if ((await ask("journal")).length === 0) {
      journal.clear();
      plot.clear();
    }
    await invoices.refresh();
  });
  showCatalogue(catalogue);
  await invoices.refresh();

  for (const entry of entries) {
    journal.add(entry);
    plot.add(entry);
  }
  listen(invoices, faults);
}

function listen(invoices, faults) {
  // A burst of requests asks for the lists once, not once for each.
  let asked = false;
  const refresh = () => {
    if (asked) return;
    asked = true;
    setTimeout(() => {
      asked = false;
      Promise.all([invoices.refresh(), faults.refresh()]).catch((error) => problem(error.message));
    }, REFRESH_MS);
  };
  const source = follow(journal.latest(), {
    entry(entry) {
      journal.add(entry);
      plot.add(entry);
      if (["apply", "confirm"].includes(entry.endpoint) || entry.fault) refresh();
    },
    up() {
      state("up", "live");
      problem("");
    },
    down(ended) {
      state("down", ended ? "not connected" : "reconnecting ...");
      problem("The lab does not answer. If it was stopped, start it again with billing-lab up and open the new address.");
      if (!ended) return;
      source.close();
      setTimeout(() => listen(invoices, faults), 2000);
    },
  });
}

begin().catch((error) => {
  state("down", "not connected");
  problem(error.message);
});
