// The vigild console page: state, configuration form, control buttons and live trace, fed by
// the stand-in's event stream (/api/events). Plain DOM, no libraries: the stand-in serves
// everything itself. Text from the daemon only ever goes into textContent.
'use strict';

(() => {
  const $ = (selector, root = document) => root.querySelector(selector);
  const $$ = (selector, root = document) => Array.from(root.querySelectorAll(selector));

  function el(tag, attrs, ...children) {
    const node = document.createElement(tag);
    for (const [key, value] of Object.entries(attrs || {})) {
      if (value === undefined || value === null || value === false) continue;
      node.setAttribute(key, value === true ? '' : String(value));
    }
    for (const child of children.flat()) {
      if (child === undefined || child === null) continue;
      node.append(child instanceof Node ? child : document.createTextNode(String(child)));
    }
    return node;
  }

  const MAX_ROWS = 1000;
  const MAX_RECENT = 500;
  const SHOWN = 120;

  const S = {
    status: null,
    latestText: '',    // the daemon's last document, as text
    formText: '',      // the document the form was built from
    formDoc: null,
    sentText: '',      // the last document this page applied
    apply: null,
    recent: [],        // the newest events, paused or not, for the answer box
    names: new Set(),
    paused: false,
    held: [],
    answer: null,
  };

  async function post(path, body) {
    const res = await fetch(path, {
      method: 'POST',
      headers: {'Content-Type': 'application/json'},
      body: JSON.stringify(body),
    });
    let data = null;
    try {
      data = await res.json();
    } catch (e) {
      data = null;
    }
    if (!res.ok) throw new Error((data && data.error) || `${res.status} ${res.statusText}`);
    return data;
  }

  function clip(text) {
    return text.length > SHOWN ? `${text.slice(0, SHOWN)}… (${text.length} bytes)` : text;
  }

  function timeOf(millis) {
    const d = new Date(millis);
    const pad = (n, w = 2) => String(n).padStart(w, '0');
    return `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}.${pad(d.getMilliseconds(), 3)}`;
  }

  function argsText(args) {
    return (args || []).map((a) => (typeof a === 'string' ? JSON.stringify(a) : String(a))).join(', ');
  }

  // ---- state

  function fact(label, value, cls) {
    return [el('dt', null, label), el('dd', {class: cls}, value)];
  }

  function renderStatus(s) {
    S.status = s;
    const badge = $('#state-badge');
    badge.textContent = s.state;
    badge.className = `badge state-${s.state}`;
    $('#root-label').textContent = s.deviceRoot ? `device root ${s.deviceRoot}` : '';

    let daemon = s.connected ? 'connected' : 'not connected';
    if (s.waiting > 0) daemon += ', waiting for a command';
    else if (s.lastCallUnixMillis) daemon += `, last call ${timeOf(s.lastCallUnixMillis)}`;
    const facts = [
      fact('Run state', s.stateCode === null ? 'none reported yet ("Fresh connect" asks for it)' : `${s.state} (${s.stateCode})`,
        `state-${s.state}`),
      fact('Service connection', daemon, s.connected ? 'ok' : 'bad'),
      fact('vigild version', s.daemonVersion || 'not reported'),
      fact('Storage root', s.storageRoot || 'not chosen yet'),
      fact('Layout', `${s.layout}${s.layoutFolder ? ` (${s.layoutFolder})` : ''}`),
      fact('Bug report request', s.bugreportProperty === '' ? 'unset' : s.bugreportProperty),
      fact('Last objection', s.lastError || 'none'),
    ];
    $('#state').replaceChildren(...facts.flat());

    const yesNo = (v) => (v === null || v === undefined ? '-' : v ? 'yes' : 'no');
    $('#modules tbody').replaceChildren(...(s.modules || []).map((m) =>
      el('tr', null, el('td', null, m.name), el('td', null, m.version || '-'),
        el('td', null, yesNo(m.enabled)), el('td', null, yesNo(m.running)))));
    const reports = Object.entries(s.reports || {});
    $('#reports tbody').replaceChildren(...(reports.length ? reports.map(([method, args]) =>
      el('tr', null, el('th', null, method), el('td', null, argsText(args) || 'called'))) :
      [el('tr', null, el('td', {class: 'muted'}, 'nothing reported yet'))]));
    $('#device tbody').replaceChildren(...Object.entries(s.device || {}).map(([name, value]) =>
      el('tr', null, el('th', null, name), el('td', null, value === null ? 'none' : String(value)))));
    $('#bugreport-state').textContent =
      `persist.sys.vd.tw_bugreport = ${s.bugreportProperty === '' ? '(unset)' : s.bugreportProperty}`;
  }

  // ---- configuration form

  const INT = /^(0|-?[1-9][0-9]*)$/;
  let fieldCount = 0;

  function valueOf(input) {
    return input.type === 'checkbox' ? (input.checked ? 'true' : 'false') : input.value;
  }

  function optionText(setting, value) {
    const list = setting.list || [];
    return setting.type === 'list' && list[Number(value)] !== undefined ? `${list[Number(value)]} (${value})` : value;
  }

  function control(module, index, setting) {
    let input;
    if (setting.type === 'boolean') {
      input = el('input', {type: 'checkbox'});
      input.checked = setting.value === 'true';
    } else if (setting.type === 'list') {
      input = el('select');
      (setting.list || []).forEach((option, i) => input.append(el('option', {value: String(i)}, option)));
      if (!(setting.list || [])[Number(setting.value)]) {
        input.append(el('option', {value: setting.value}, `(index ${setting.value})`));
      }
      input.value = setting.value;
    } else if (setting.type === 'int') {
      input = el('input', {type: 'number', step: '1'});
      input.value = setting.value;
    } else {
      input = el('input', {type: 'text', spellcheck: 'false'});
      input.value = setting.value;
    }
    input.id = `field-${++fieldCount}`;
    input.dataset.module = module;
    input.dataset.index = String(index);
    input.dataset.type = setting.type;
    input.name = `${module}/${setting.name}`;
    return input;
  }

  function fieldRow(module, index, setting, enable) {
    const input = control(module, index, setting);
    const row = el('div', {class: enable ? 'field enable' : 'field', 'data-module': module, 'data-setting': setting.name},
      el('label', {for: input.id}, setting.name),
      input,
      el('span', {class: 'type'}, setting.type),
      el('span', {class: 'objection'}),
      el('span', {class: 'notkept'}));
    return row;
  }

  function renderForm(text) {
    S.formText = text;
    S.formDoc = text ? JSON.parse(text) : null;
    const form = $('#config-form');
    form.replaceChildren();
    const note = $('#config-note');
    if (!S.formDoc || typeof S.formDoc !== 'object') {
      note.textContent = 'No document from the daemon yet: press "Fetch configuration".';
      updateDiff();
      return;
    }
    note.textContent = 'The document the daemon sent last. Edit and apply: the daemon gets it with "config_set:".';
    for (const [module, body] of Object.entries(S.formDoc)) {
      const settings = Array.isArray(body && body.settings) ? body.settings : [];
      const enable = settings.findIndex((s) => s && s.name === 'Enable Module' && s.type === 'boolean');
      const set = el('fieldset', {class: 'module', 'data-module': module}, el('legend', null, module));
      if (enable >= 0) set.append(fieldRow(module, enable, settings[enable], true));
      settings.forEach((setting, i) => {
        if (i !== enable && setting && typeof setting.name === 'string') set.append(fieldRow(module, i, setting, false));
      });
      if (settings.length === 0) set.append(el('p', {class: 'muted'}, 'no settings'));
      form.append(set);
    }
    renderApply();
    updateDiff();
  }

  function changes() {
    const out = [];
    for (const input of $$('#config-form [data-index]')) {
      const setting = S.formDoc[input.dataset.module].settings[Number(input.dataset.index)];
      const value = valueOf(input);
      if (value !== setting.value) out.push({module: input.dataset.module, setting, from: setting.value, to: value, input});
    }
    return out;
  }

  function editedDocument() {
    const doc = JSON.parse(S.formText);
    for (const input of $$('#config-form [data-index]')) {
      doc[input.dataset.module].settings[Number(input.dataset.index)].value = valueOf(input);
    }
    return doc;
  }

  function updateDiff() {
    const list = S.formDoc ? changes() : [];
    let invalid = 0;
    for (const input of $$('#config-form [data-type="int"]')) {
      const bad = !INT.test(input.value);
      input.classList.toggle('invalid', bad);
      if (bad) invalid++;
    }
    const diff = $('#diff');
    if (list.length === 0) {
      diff.replaceChildren(el('span', {class: 'muted'}, 'No changes against the document in force.'));
    } else {
      diff.replaceChildren(
        el('strong', null, `${list.length} change${list.length > 1 ? 's' : ''} to send:`),
        el('ul', null, list.map((c) => el('li', null, `${c.module} › ${c.setting.name}: `,
          el('del', null, optionText(c.setting, c.from)), ' → ', el('ins', null, optionText(c.setting, c.to))))));
    }
    if (invalid) diff.append(el('p', {class: 'bad'}, 'An int field holds something other than a whole number.'));
    for (const row of $$('#config-form .field')) row.classList.remove('changed');
    for (const c of list) c.input.closest('.field').classList.add('changed');
    $('#apply').disabled = list.length === 0 || invalid > 0;
    $('#revert').disabled = list.length === 0 && S.formText === S.latestText;
  }

  function findRow(module, setting) {
    return $$('#config-form .field').find((r) => r.dataset.module === module && r.dataset.setting === setting);
  }

  const PHASES = {
    queued: 'Handed to the service; waiting for the daemon to take "config_set:".',
    taken: 'The daemon took "config_set:".',
    received: 'The daemon fetched the document and is checking it.',
    answered: 'The daemon applied the document and sent back the one now in force.',
    unanswered: 'The daemon sent no document back: it refused the text and kept its settings.',
  };

  function renderApply() {
    for (const row of $$('#config-form .field')) {
      row.classList.remove('objected', 'reset');
      $('.objection', row).textContent = '';
      $('.notkept', row).textContent = '';
    }
    const a = S.apply;
    const box = $('#apply-result');
    if (!a) {
      box.replaceChildren();
      return;
    }
    box.dataset.applyId = String(a.id);
    box.dataset.phase = a.phase;
    const lines = [el('div', {class: `phase phase-${a.phase}`}, PHASES[a.phase] || a.phase)];
    const loose = [];
    let objections = 0;
    for (const [module, settings] of Object.entries(a.objections || {})) {
      for (const [name, message] of Object.entries(settings && typeof settings === 'object' ? settings : {'': settings})) {
        objections++;
        const row = findRow(module, name);
        if (row) {
          row.classList.add('objected');
          $('.objection', row).textContent = String(message);
        } else {
          loose.push(`${module}${name ? ` › ${name}` : ''}: ${message}`);
        }
      }
    }
    for (const k of a.notKept || []) {
      const row = findRow(k.module, k.setting);
      const setting = S.formDoc && S.formDoc[k.module] ? (S.formDoc[k.module].settings || []).find((s) => s.name === k.setting) : null;
      const now = setting ? optionText(setting, k.now) : k.now;
      const sent = setting ? optionText(setting, k.sent) : k.sent;
      if (row) {
        row.classList.add('reset');
        $('.notkept', row).textContent = `not kept: sent ${sent}, the daemon has ${now}`;
      } else {
        loose.push(`${k.module} › ${k.setting}: sent ${sent}, the daemon has ${now}`);
      }
    }
    if (objections) lines.push(el('div', {class: 'bad'}, `${objections} module objection${objections > 1 ? 's' : ''} (the values stay applied).`));
    if (a.notKept && a.notKept.length) {
      lines.push(el('div', {class: 'bad'}, `${a.notKept.length} value${a.notKept.length > 1 ? 's' : ''} not kept (reset or corrected by the daemon).`));
    }
    if (loose.length) lines.push(el('ul', null, loose.map((t) => el('li', null, t))));
    box.replaceChildren(...lines);
  }

  function onConfig(c) {
    S.apply = c.apply;
    const text = c.document ? JSON.stringify(c.document) : '';
    const fresh = text !== S.latestText;
    S.latestText = text;
    if (fresh) {
      // Edits not yet sent survive a new document; edits that were sent give way to it.
      const editsPending = S.formDoc && changes().length > 0 && JSON.stringify(editedDocument()) !== S.sentText;
      if (!editsPending) {
        renderForm(text);
      } else {
        $('#config-note').textContent = 'The daemon sent a new document while you were editing: "Discard changes" loads it.';
      }
    }
    renderApply();
    updateDiff();
  }

  async function applyForm() {
    const doc = editedDocument();
    S.sentText = JSON.stringify(doc);
    $('#apply').disabled = true;
    try {
      await post('/api/config', doc);
    } catch (e) {
      $('#apply-result').replaceChildren(el('div', {class: 'bad'}, `Not sent: ${e.message}`));
      updateDiff();
    }
  }

  // ---- control

  function startAnswer(title, after, only) {
    S.answer = {title, after, only, taken: false, done: false, lines: []};
    for (const ev of S.recent) feedAnswer(ev);
    renderAnswer();
  }

  function feedAnswer(ev) {
    const a = S.answer;
    if (!a || a.done || ev.seq <= a.after) return;
    if (a.only) {
      if (a.only.includes(ev.name)) a.lines.push(ev);
      return;
    }
    if (ev.name === 'waitForResponse') {
      if (!a.taken && ev.reply === a.title) {
        a.taken = true;
      } else if (a.taken) {
        a.done = true;  // the daemon moved on to its next command
      }
      return;
    }
    if (!a.taken) return;
    a.lines.push(ev);
    if (a.lines.length >= 40) a.done = true;
  }

  function describe(ev) {
    let text = `${ev.name}(${clip(argsText(ev.args))})`;
    if (ev.name === 'sendState' && ev.args.length) {
      text += `  ${({0: 'stopped', 1: 'running', 2: 'transition'})[ev.args[0]] || ''}`;
    }
    if (ev.direction === 'query' && ev.reply !== '') text += ` = ${clip(ev.reply)}`;
    return text;
  }

  function renderAnswer() {
    const a = S.answer;
    const box = $('#answer');
    box.classList.remove('muted');
    const head = a.only ? a.title :
      a.taken ? `The daemon took "${a.title}".` : `"${a.title}" queued; waiting for the daemon to take it.`;
    const items = a.lines.map((ev) => el('li', null, el('span', {class: 'muted'}, `#${ev.seq} `), describe(ev)));
    if (a.taken && !a.lines.length && !a.only) items.push(el('li', {class: 'muted'}, 'nothing reported yet'));
    box.replaceChildren(el('div', null, head), el('ul', null, items));
  }

  async function command(name, extra) {
    try {
      const r = await post('/api/command', Object.assign({command: name}, extra || {}));
      startAnswer(name, r.after, null);
    } catch (e) {
      $('#answer').replaceChildren(el('div', {class: 'bad'}, `"${name}" not sent: ${e.message}`));
    }
  }

  // ---- trace

  function hexDump(hex) {
    if (!hex) return '(no bytes kept)';
    const lines = [];
    for (let off = 0; off < hex.length / 2; off += 16) {
      const chunk = hex.slice(off * 2, (off + 16) * 2);
      const pairs = chunk.match(/../g);
      const ascii = pairs.map((p) => {
        const c = parseInt(p, 16);
        return c >= 0x20 && c < 0x7f ? String.fromCharCode(c) : '.';
      }).join('');
      lines.push(`${off.toString(16).padStart(6, '0')}  ${pairs.join(' ').padEnd(47)}  ${ascii}`);
    }
    return lines.join('\n');
  }

  async function toggleBytes(tr, seq) {
    const next = tr.nextElementSibling;
    if (next && next.classList.contains('bytes')) {
      next.remove();
      return;
    }
    const cell = el('td', {colspan: 6}, 'loading…');
    tr.after(el('tr', {class: 'bytes', 'data-for': seq}, cell));
    try {
      const res = await fetch(`/api/trace/${seq}`);
      const ev = await res.json();
      if (!res.ok) throw new Error(ev.error || res.statusText);
      cell.replaceChildren(
        el('div', {class: 'muted'}, `request, ${ev.requestHex.length / 2} bytes`), el('pre', {class: 'hex'}, hexDump(ev.requestHex)),
        el('div', {class: 'muted'}, `reply, status ${ev.status}, ${ev.replyHex.length / 2} bytes`), el('pre', {class: 'hex'}, hexDump(ev.replyHex)));
    } catch (e) {
      cell.replaceChildren(el('span', {class: 'bad'}, e.message));
    }
  }

  function visible(name) {
    const filter = $('#trace-filter').value;
    return !filter || filter === name;
  }

  function addRow(ev) {
    const args = argsText(ev.args);
    const button = el('button', {class: 'small', type: 'button'}, 'hex');
    const tr = el('tr', {'data-seq': ev.seq, 'data-name': ev.name, class: `dir-${ev.direction}${ev.status ? ' refused' : ''}`},
      el('td', null, ev.seq), el('td', null, timeOf(ev.unixMillis)), el('td', {class: 'name'}, ev.name),
      el('td', {title: args.length > SHOWN ? args : null}, clip(args)),
      el('td', {title: ev.reply.length > SHOWN ? ev.reply : null}, ev.direction === 'report' && ev.reply === '' ? '' : clip(ev.reply)),
      el('td', null, button));
    button.addEventListener('click', () => toggleBytes(tr, ev.seq));
    tr.hidden = !visible(ev.name);
    const body = $('#trace tbody');
    body.prepend(tr);
    while (body.rows.length > MAX_ROWS) body.lastElementChild.remove();
  }

  function updateCount() {
    const shown = $$('#trace tbody tr[data-seq]').filter((r) => !r.hidden).length;
    $('#trace-count').textContent = `${shown} shown` + (S.held.length ? `, ${S.held.length} held while paused` : '');
  }

  function onTrace(ev) {
    S.recent.push(ev);
    if (S.recent.length > MAX_RECENT) S.recent.shift();
    if (!S.names.has(ev.name)) {
      S.names.add(ev.name);
      const select = $('#trace-filter');
      const options = Array.from(select.options).slice(1).map((o) => o.value).concat(ev.name).sort();
      const chosen = select.value;
      select.replaceChildren(el('option', {value: ''}, 'all'), ...options.map((n) => el('option', {value: n}, n)));
      select.value = chosen;
    }
    feedAnswer(ev);
    if (S.answer) renderAnswer();
    if (S.paused) {
      S.held.push(ev);
    } else {
      addRow(ev);
    }
    updateCount();
  }

  // ---- wiring

  function connect() {
    const link = $('#link-badge');
    const events = new EventSource('/api/events');
    events.onopen = () => {
      link.textContent = 'live';
      link.className = 'badge on';
    };
    events.onerror = () => {
      link.textContent = 'reconnecting';
      link.className = 'badge off';
    };
    events.addEventListener('trace', (e) => onTrace(JSON.parse(e.data)));
    events.addEventListener('status', (e) => renderStatus(JSON.parse(e.data)));
    events.addEventListener('config', (e) => onConfig(JSON.parse(e.data)));
  }

  for (const button of $$('[data-command]')) {
    button.addEventListener('click', () => {
      if (button.dataset.confirm && !window.confirm(button.dataset.confirm)) return;
      command(button.dataset.command);
    });
  }
  $('#delete-logs').addEventListener('click', () => {
    const type = Number($('#delete-type').value);
    if (!window.confirm(`Delete logs with delete type ${type}?`)) return;
    command('delete_logs', {deleteType: type});
  });
  $('#bugreport').addEventListener('click', async () => {
    try {
      const r = await post('/api/bugreport', {});
      startAnswer(`${r.property} = ${r.value}: the daemon takes the request on its next poll.`, r.after,
        ['updateTwBugreportStatus']);
    } catch (e) {
      $('#answer').replaceChildren(el('div', {class: 'bad'}, `Bug report not requested: ${e.message}`));
    }
  });
  const form = $('#config-form');
  form.addEventListener('input', updateDiff);
  form.addEventListener('change', updateDiff);
  form.addEventListener('submit', (e) => e.preventDefault());
  $('#apply').addEventListener('click', applyForm);
  $('#revert').addEventListener('click', () => renderForm(S.latestText));
  $('#trace-filter').addEventListener('change', () => {
    for (const row of $$('#trace tbody tr[data-seq]')) row.hidden = !visible(row.dataset.name);
    for (const row of $$('#trace tbody tr.bytes')) row.remove();
    updateCount();
  });
  $('#trace-pause').addEventListener('change', (e) => {
    S.paused = e.target.checked;
    if (!S.paused) {
      for (const ev of S.held) addRow(ev);
      S.held = [];
    }
    updateCount();
  });
  $('#trace-clear').addEventListener('click', () => {
    $('#trace tbody').replaceChildren();
    S.held = [];
    updateCount();
  });

  connect();
})();
