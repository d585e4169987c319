// Shows what tdlhost knows about the guest. All texts come from the guest and are untrusted: they are only ever set as
// text (textContent), never as markup.

const byId = (id) => document.getElementById(id);
const hex = (number) => `0x${number.toString(16)}`;
const kMostRows = 500;
const kReconnect = 5000; // ms
const kNotice = 6000; // ms

// --- Elements

// An element with these properties and children; names with a hyphen, and "role", become attributes.
function element(name, properties = {}, ...children) {
  const node = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key.includes('-') || key === 'role') node.setAttribute(key, value);
    else node[key] = value;
  }
  node.append(...children);
  return node;
}

function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

// Makes the children of `parent` show `items`, in this order; no two have the same key. A child stays as long as its
// item, so that it keeps the keyboard focus and the screen reader's place.
function showList(parent, items, keyOf, create, update) {
  const keys = new Set(items.map((item) => String(keyOf(item))));
  const old = new Map();
  let lostFocus = false;
  // What has ended goes first: then the rest need not be moved, which would take the focus from it.
  for (const child of [...parent.children]) {
    if (keys.has(child.dataset.key)) {
      old.set(child.dataset.key, child);
    } else {
      lostFocus ||= child.contains(document.activeElement);
      child.remove();
    }
  }
  let next = parent.firstElementChild;
  for (const item of items) {
    const key = String(keyOf(item));
    const child = old.get(key) ?? create(item);
    child.dataset.key = key;
    update(child, item);
    if (child === next) next = next.nextElementSibling;
    else parent.insertBefore(child, next);
  }
  if (lostFocus) parent.closest('[tabindex]')?.focus();
}

// An icon's image. The words next to it say what it stands for, so it has no text of its own.
function image(size) {
  const node = element('img', { alt: '', width: size, height: size, src: 'window.svg', draggable: false });
  node.addEventListener('error', () => {
    if (!node.src.endsWith('/window.svg')) node.src = 'window.svg';
  });
  return node;
}

function setIcon(node, number) {
  if (node.dataset.icon === String(number)) return;
  node.dataset.icon = number;
  node.src = number ? `icon/${number}` : 'window.svg';
}

function announce(text) {
  byId('announcer').replaceChildren(element('span', { textContent: text }));
}

// --- Commands

let noticeEnd = 0;

function notify(text, bad) {
  const notice = byId('notice');
  notice.classList.toggle('bad', bad);
  notice.textContent = text;
  clearTimeout(noticeEnd);
  if (!bad) noticeEnd = setTimeout(() => notice.replaceChildren(), kNotice);
}

async function send(request, what) {
  try {
    const response = await fetch('command', {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(request),
    });
    const text = (await response.text()).trim();
    notify(response.ok ? what : `${what}: ${text}`, !response.ok);
  } catch {
    notify(`${what}: tdlhost does not answer`, true);
  }
}

function confirmForce(name) {
  const dialog = byId('confirm');
  byId('confirm-text').textContent = `${name} loses what is not saved.`;
  return new Promise((resolve) => {
    byId('confirm-yes').onclick = () => dialog.close('yes');
    byId('confirm-no').onclick = () => dialog.close('no');
    dialog.onclose = () => resolve(dialog.returnValue === 'yes');
    dialog.returnValue = 'no';
    dialog.showModal();
  });
}

function commandButton(label, action, of, className = '') {
  const button = element('button', { type: 'button', textContent: label, className });
  button.addEventListener('click', action);
  button.dataset.label = label;
  nameButton(button, of);
  return button;
}

// Several buttons have the same label; a screen reader also says what the button is for.
function nameButton(button, of) {
  const name = `${button.dataset.label} ${of}`;
  if (button.getAttribute('aria-label') !== name) button.setAttribute('aria-label', name);
}

// --- Running applications and the taskbar

let known = null; // titles by window, once the first list has come

function titleOf(window, application) {
  return window.title || application.name || 'Window without a title';
}

// With one window, what concerns the window is beside the window.
function createApplication(first) {
  const node = element('li', { className: 'application' });
  let application = first;
  const { pid } = first;
  const windows = element('ul', { className: 'windows' });
  const inside = element('ul', { className: 'inside' });
  const name = element('bdi', { className: 'name' });
  const path = element('bdi', { className: 'path' });
  const icon = image(40);
  const forAll = [
    commandButton('Activate all', () => send({ do: 'activate', pid }, `Activating ${application.name}`), ''),
    commandButton('Hide all', () => send({ do: 'hide', pid }, `Hiding ${application.name}`), ''),
  ];
  const buttons = [
    ...forAll,
    commandButton('Quit', () => send({ do: 'quit', pid }, `Asking ${application.name} to close its windows`), ''),
    commandButton('Force to quit', async () => {
      if (await confirmForce(application.name)) {
        send({ do: 'quit', pid, force: true }, `Forcing ${application.name} to quit`);
      }
    }, '', 'danger'),
  ];
  node.append(
    element('div', { className: 'head' }, icon,
      element('div', { className: 'names' },
        element('h3', {}, name), element('p', { className: 'hint' }, `process ${pid}, `, path)),
      element('div', { className: 'buttons' }, ...buttons)),
    windows, inside);
  node.update = (now) => {
    application = now;
    setText(name, now.name || 'Application without a name');
    setText(path, now.path || 'unknown program');
    setIcon(icon, (now.windows.find((window) => window.icon) ?? now.inside.find((window) => window.icon))?.icon ?? 0);
    node.classList.toggle('hidden', now.windows.every((window) => window.hidden));
    for (const button of buttons) nameButton(button, now.name);
    for (const button of forAll) button.hidden = now.windows.length < 2;
    showList(windows, now.windows, (window) => window.id, (window) => createWindow(window, () => application),
      (child, window) => child.update(window, now));
    showList(inside, now.inside, (window) => window.id, createInside, (child, window) => child.update(window));
  };
  return node;
}

function createWindow(first, applicationNow) {
  const { id } = first;
  const icon = image(20);
  const title = element('bdi', { className: 'title' });
  const state = element('span', { className: 'state' });
  const buttons = element('div', { className: 'buttons' });
  const node = element('li', { className: 'window' }, icon, title,
    element('span', { className: 'hint' }, hex(id)), state, buttons);
  const pid = () => applicationNow().pid;
  const activate = commandButton('Activate', () => send({ do: 'activate', window: id }, `Activating ${title.textContent}`), '');
  // The agent hides and closes all windows of an application together.
  const hide = commandButton('Hide', () => send({ do: 'hide', pid: pid() }, `Hiding ${title.textContent}`), '');
  const close = commandButton('Close', () => send({ do: 'quit', pid: pid() }, `Closing ${title.textContent}`), '');
  buttons.append(activate, hide, close);
  node.update = (window, application) => {
    const text = titleOf(window, application);
    setText(title, text);
    setIcon(icon, window.icon);
    node.classList.toggle('hidden', window.hidden);
    setText(state, window.hidden ? 'hidden' : '');
    for (const button of [activate, hide, close]) nameButton(button, text);
    hide.hidden = close.hidden = application.windows.length > 1;
  };
  return node;
}

function createInside(first) {
  const icon = image(20);
  const title = element('bdi', { className: 'title' });
  // The host cannot know which of several windows has this frame.
  const node = element('li', { className: 'window', title: 'A change inside a window manager’s frame' },
    icon, title, element('span', { className: 'hint' }, `now in ${hex(first.id)}`));
  node.update = (window) => {
    setText(title, window.title);
    setIcon(icon, window.icon);
  };
  return node;
}

function createTask({ window }) {
  const icon = image(24);
  const title = element('bdi', { className: 'title' });
  const state = element('span', { className: 'unseen' });
  const button = element('button', { type: 'button' }, icon, title, state);
  button.addEventListener('click', () => send({ do: 'activate', window: window.id }, `Activating ${title.textContent}`));
  const node = element('li', {}, button);
  node.update = (now) => {
    const text = titleOf(now.window, now.application);
    setText(title, text);
    setIcon(icon, now.window.icon);
    setText(state, now.window.hidden ? ' (hidden)' : '');
    if (button.title !== text) button.title = text;
    node.classList.toggle('hidden', now.window.hidden);
  };
  return node;
}

function announceChanges(tasks) {
  const now = new Map(tasks.map(({ window, application }) => [window.id, titleOf(window, application)]));
  const texts = [];
  for (const [id, title] of now) {
    if (known && !known.has(id)) texts.push(`${title} has opened.`);
  }
  for (const [id, title] of known ?? []) {
    if (!now.has(id)) texts.push(`${title} is gone.`);
  }
  known = now;
  if (texts.length > 0) announce(texts.length > 5 ? `${texts.length} windows have changed.` : texts.join(' '));
}

function showApplications(applications) {
  const tasks = applications.flatMap((application) => application.windows.map((window) => ({ application, window })));
  announceChanges(tasks);
  showList(byId('applications'), applications, (application) => application.pid, createApplication,
    (child, application) => child.update(application));
  // Nothing keeps an agent from reporting one window for two applications.
  showList(byId('tasks'), tasks, ({ application, window }) => `${application.pid} ${window.id}`, createTask,
    (child, task) => child.update(task));
}

// --- The menu

let menu = [];

function start(entry, documents) {
  const what = documents.length > 0 ? `Opening ${documents.join(', ')} with ${entry.name}` : `Starting ${entry.name}`;
  send({ do: 'start', path: entry.path, documents }, what);
}

// The paths that were dropped, as text or as addresses of files.
function droppedPaths(transfer) {
  const lines = (transfer.getData('text/uri-list') || transfer.getData('text/plain')).split(/[\r\n]+/);
  return lines.filter((line) => line && !line.startsWith('#')).map((line) => {
    if (!line.startsWith('file:')) return line.trim();
    try {
      return decodeURIComponent(new URL(line).pathname);
    } catch {
      return line;
    }
  });
}

function createEntry(first) {
  let entry = first;
  const icon = image(24);
  const name = element('bdi');
  const button = element('button', { type: 'button', className: 'entry' }, icon, name);
  button.addEventListener('click', () => {
    const field = byId('document');
    const path = field.value.trim();
    start(entry, path ? [path] : []);
    field.value = '';
  });
  button.addEventListener('dragover', (event) => {
    event.preventDefault();
    event.dataTransfer.dropEffect = 'copy';
    button.classList.add('target');
  });
  button.addEventListener('dragleave', () => button.classList.remove('target'));
  button.addEventListener('drop', (event) => {
    event.preventDefault();
    button.classList.remove('target');
    const paths = droppedPaths(event.dataTransfer);
    if (paths.length > 0) start(entry, paths);
    else notify('The browser does not tell the path of a dropped file. Drop the path as text.', true);
  });
  const node = element('li', {}, button);
  node.update = (now) => {
    entry = now;
    setText(name, now.name);
    setIcon(icon, now.icon);
    button.title = now.path;
  };
  return node;
}

function createFolder() {
  const title = element('bdi');
  const list = element('ul', { className: 'entries' });
  const node = element('section', { className: 'folder' }, element('h3', {}, title), list);
  node.update = ([location, entries]) => {
    setText(title, location.split('/').filter(Boolean).join(' › ') || 'Other');
    showList(list, entries, (entry) => `${entry.path} ${entry.copy}`, createEntry, (child, entry) => child.update(entry));
  };
  return node;
}

function showMenu() {
  const wanted = byId('search').value.trim().toLowerCase();
  const folders = new Map();
  const copies = new Map(); // an entry may be in a folder more than once
  for (const entry of menu) {
    if (!`${entry.name} ${entry.location}`.toLowerCase().includes(wanted)) continue;
    if (!folders.has(entry.location)) folders.set(entry.location, []);
    const key = `${entry.location} ${entry.path}`;
    copies.set(key, (copies.get(key) ?? 0) + 1);
    folders.get(entry.location).push({ ...entry, copy: copies.get(key) });
  }
  const sorted = [...folders].sort(([a], [b]) => a.localeCompare(b));
  showList(byId('menu'), sorted, ([location]) => location, createFolder, (child, folder) => child.update(folder));
}

// A drop beside an entry would make the browser leave the page and show the dropped file.
document.addEventListener('dragover', (event) => {
  if (event.defaultPrevented || event.target.closest?.('input')) return;
  event.preventDefault();
  event.dataTransfer.dropEffect = 'none';
});

// Other keys belong to the browser, such as Alt with an arrow, or to an input method.
const isPlainKey = (event) => !event.altKey && !event.ctrlKey && !event.metaKey && !event.isComposing;
const entryButtons = () => [...byId('menu').querySelectorAll('.entry')];

byId('search').addEventListener('input', showMenu);
byId('search').addEventListener('keydown', (event) => {
  const first = entryButtons()[0];
  if (!first || !isPlainKey(event)) return;
  if (event.key === 'ArrowDown') first.focus();
  else if (event.key === 'Enter' && event.target.value.trim()) first.click();
  else return;
  event.preventDefault();
});
byId('menu').addEventListener('keydown', (event) => {
  const buttons = entryButtons();
  const at = buttons.indexOf(document.activeElement);
  const to = { ArrowDown: at + 1, ArrowRight: at + 1, ArrowUp: at - 1, ArrowLeft: at - 1, Home: 0, End: buttons.length - 1 }[event.key];
  if (to === undefined || !isPlainKey(event)) return;
  event.preventDefault();
  (buttons[to] ?? byId('search')).focus();
});

// --- The log

const kHeadFields = new Set(['sequence', 'time', 'agent', 'message', 'outcome', 'violations', 'remarks']);
const kHexFields = new Set(['window', 'windows', 'flags', 'request_code']);

function fieldText(name, value) {
  if (Array.isArray(value)) {
    if (value.length > 0 && typeof value[0] === 'object') return `${value.length}`;
    return value.map((item) => fieldText(name, item)).join(', ') || 'none';
  }
  if (value === null) return 'none';
  if (typeof value === 'number') return kHexFields.has(name) ? hex(value) : String(value);
  if (typeof value === 'object') {
    if (value.kind === 'argb') return `${value.width} × ${value.height} pixels`;
    if (value.kind === 'file') return `a file of ${value.bytes} bytes`;
    return Object.entries(value).map(([key, item]) => `${key} ${item}`).join(', ');
  }
  return typeof value === 'string' ? `“${value}”` : String(value);
}

function createRow(message) {
  const fields = element('td', { className: 'message-fields' });
  for (const [name, value] of Object.entries(message)) {
    if (kHeadFields.has(name)) continue;
    fields.append(element('span', {}, element('b', { textContent: name.replaceAll('_', ' ') }), ' ',
      element('bdi', { textContent: fieldText(name, value) })), ' ');
  }
  if (message.outcome !== 'taken') fields.append(element('p', { className: 'remark', textContent: `Answer: ${message.outcome}` }));
  for (const text of message.violations) fields.append(element('p', { className: 'violation' }, 'Violation: ', element('bdi', { textContent: text })));
  for (const text of message.remarks) fields.append(element('p', { className: 'remark' }, 'Remark: ', element('bdi', { textContent: text })));
  const time = new Date(message.time * 1000);
  const row = element('tr', {},
    element('td', { textContent: message.sequence }),
    element('td', {}, element('time', { dateTime: time.toISOString(), textContent: time.toLocaleTimeString(), title: `agent ${message.agent}` })),
    element('td', { textContent: message.message }), fields);
  row.classList.toggle('violating', message.violations.length > 0);
  return row;
}

function applyFilter(row) {
  const wanted = byId('filter').value.trim().toLowerCase();
  row.hidden = (byId('only-violations').checked && !row.classList.contains('violating')) ||
    !row.textContent.toLowerCase().includes(wanted);
}

function addRow(row) {
  const log = byId('log');
  applyFilter(row);
  log.prepend(row); // the newest is first, where it is seen
  while (log.children.length > kMostRows) log.lastElementChild.remove();
}

for (const id of ['filter', 'only-violations']) {
  byId(id).addEventListener('input', () => [...byId('log').children].forEach(applyFilter));
}

// --- The state

function showStatus(status) {
  const agents = status.agents.map((agent) => [agent.name, agent.version, `(process ${agent.pid})`].filter(Boolean).join(' '));
  let agent = agents.join(', ') || 'none has registered';
  if (agents.length > 0 && !status.connected) agent = `gone without a goodbye: ${agent}`;
  setText(byId('agent'), agent);
  // The host hears of the console only through the tool: the agent serves while the console is its own.
  const active = status.tool_active && status.connected;
  setText(byId('console'), active ? 'owned by the agent' : status.connected ? 'not owned by the agent' : 'unknown');
  const tool = status.tool_active === null ? 'not reported yet' : status.tool_active ? 'active' : 'inactive';
  setText(byId('tool'), active && !status.enumeration_finished ? `${tool}, reporting windows` : tool);
  setText(byId('waiting'), String(status.commands_waiting));
  setText(byId('messages'), String(status.messages));
  setText(byId('violations'), String(status.violations));
  byId('violations').classList.toggle('violation', status.violations > 0);
  byId('agent').classList.toggle('good', active);
}

function showConnection(problem) {
  const node = byId('connection');
  node.hidden = !problem;
  setText(node, problem);
  document.body.classList.toggle('old', Boolean(problem));
}

// --- The stream of changes

function connect() {
  const source = new EventSource('events');
  const on = (name, show) => source.addEventListener(name, (event) => show(JSON.parse(event.data)));
  source.addEventListener('open', () => {
    // The server sends everything anew.
    byId('log').replaceChildren();
    showConnection('');
  });
  source.addEventListener('error', () => {
    showConnection('tdlhost does not answer. What you see is what it was. The page tries again.');
    // The browser itself does not try again after an answer with an error.
    if (source.readyState === EventSource.CLOSED) setTimeout(connect, kReconnect);
  });
  on('status', showStatus);
  on('applications', showApplications);
  on('menu', (entries) => {
    menu = entries;
    showMenu();
  });
  on('left-out', (count) => {
    addRow(element('tr', {}, element('td', { colSpan: 4, textContent: `${count} earlier messages are not shown` })));
  });
  on('message', (message) => addRow(createRow(message)));
}

byId('reset').addEventListener('click', () => send({ do: 'reset' }, 'Asking for everything again'));
connect();
