// Light and dark: as the system says, or as chosen for this tab.

const STORE = "theme";

export function startTheme(select, changed) {
  const apply = () => {
    document.documentElement.dataset.theme = select.value;
    changed();
  };
  select.value = localStorage.getItem(STORE) ?? "";
  select.addEventListener("change", () => {
    localStorage.setItem(STORE, select.value);
    apply();
  });
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", changed);
  apply();
}

export function colour(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}
