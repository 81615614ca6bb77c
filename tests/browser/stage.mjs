// The service, a device and a browser as child processes of a test. Nothing here sleeps: everything waits for a line,
// an answer or an element.
import { spawn } from "node:child_process";
import { createHash, X509Certificate } from "node:crypto";
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import path from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";
import { chromium } from "playwright-core";

export const kBuildDir = process.env.MORVIK_BUILD_DIR ?? fileURLToPath(new URL("../../build/dev", import.meta.url));
// Longer than any of our steps takes on a busy machine; only a hang reaches it.
export const kPatience = 120_000;
export const kDesktop = { width: 1280, height: 800 };
export const kPhone = { width: 390, height: 844 };

const kKeys = "app-key=demo-app\nhash-key=demo-hash-key\ntracking-key=demo-tracking-key\n";
// Turns off what Chromium would otherwise contact on its own.
const kQuiet = [
  "--no-sandbox",
  "--disable-gpu",
  "--disable-quic",
  "--no-first-run",
  "--disable-background-networking",
  "--disable-component-update",
  "--disable-sync",
];

export const program = (name) => path.join(kBuildDir, "bin", name);
export const screenshots = path.join(kBuildDir, "screenshots");

// Lines of a pipe, one by one.
class Lines {
  constructor(stream) {
    this.lines = createInterface({ input: stream })[Symbol.asyncIterator]();
  }
  async next() {
    const { value, done } = await this.lines.next();
    if (done) throw new Error("the program ended without a further line");
    return JSON.parse(value);
  }
}

async function ended(child) {
  if (child.exitCode === null && child.signalCode === null) await new Promise((resolve) => child.once("exit", resolve));
}

export class Stage {
  constructor() {
    this.folder = mkdtempSync(path.join(tmpdir(), "morvik_browser_"));
    this.children = [];
    mkdirSync(screenshots, { recursive: true });
    writeFileSync(this.file("keys"), kKeys, { mode: 0o600 });
  }

  file(name) {
    return path.join(this.folder, name);
  }

  #start(name, args) {
    const child = spawn(program(name), args, { stdio: ["pipe", "pipe", "ignore"] });
    this.children.push(child);
    return child;
  }

  async startService() {
    const folders = ["--store", this.file("service"), "--make-cert", this.file("tls"), "--keys", this.file("keys")];
    const child = this.#start("morvik-service", [...folders, "--quiet"]);
    this.url = (await new Lines(child.stdout).next()).listening;
  }

  // A device that runs one verb after the other.
  startDevice(name = "device", ...more) {
    const files = ["--store", this.file(name), "--keys", this.file("keys"), "--ca", this.file("tls/ca.pem")];
    const child = this.#start("morvik-device", [...files, "--service", this.url, ...more]);
    const lines = new Lines(child.stdout);
    return {
      // The verb's answer; lines from delegates may come before it.
      do: async (verb) => {
        child.stdin.write(`${verb}\n`);
        for (;;) {
          const line = await lines.next();
          if (line.verb !== undefined) return line;
        }
      },
      end: async () => {
        child.stdin.end();
        await ended(child);
      },
    };
  }

  // A page that trusts the service's own certificate and no other generated one. `troubles` collects everything that a
  // clean page never has.
  async openBrowser(viewport = kDesktop, colorScheme = "light") {
    const certificate = new X509Certificate(readFileSync(this.file("tls/cert.pem")));
    const publicKey = certificate.publicKey.export({ type: "spki", format: "der" });
    const key = createHash("sha256").update(publicKey).digest("base64");
    this.context = await chromium.launchPersistentContext(this.file("profile"), {
      executablePath: process.env.MORVIK_CHROMIUM ?? "/usr/bin/chromium",
      headless: true,
      viewport,
      colorScheme,
      timeout: kPatience,
      args: [...kQuiet, `--ignore-certificate-errors-spki-list=${key}`],
    });
    this.context.setDefaultTimeout(kPatience);
    const page = this.context.pages()[0] ?? (await this.context.newPage());
    const troubles = [];
    page.on("console", (message) => {
      if (["error", "warning"].includes(message.type())) troubles.push(`console: ${message.text()}`);
    });
    page.on("pageerror", (error) => troubles.push(`page: ${error.message}`));
    // Leaving a page ends its stream.
    const isEndedStream = (request) =>
      request.url().includes("/inspect/stream") && request.failure()?.errorText === "net::ERR_ABORTED";
    page.on("requestfailed", (request) => {
      if (!isEndedStream(request)) troubles.push(`request: ${request.url()} ${request.failure()?.errorText}`);
    });
    page.on("response", (response) => {
      if (response.status() >= 400) troubles.push(`answer: ${response.url()} ${response.status()}`);
    });
    return { page, troubles };
  }

  async end() {
    await this.context?.close();
    for (const child of this.children) child.kill("SIGTERM");
    await Promise.all(this.children.map(ended));
    rmSync(this.folder, { recursive: true, force: true });
  }
}
